// Shared pieces of the benchmarks that time single operations: percentiles
// of nanosecond samples, and the scriptable test daemon started under
// kx-launch in a private runtime directory.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/message/message_socket.h"
#include "platform/process/child_process.h"

namespace kx::bench {

// The p-th percentile (0..1) of nanosecond samples, in microseconds.
inline double Percentile(std::vector<uint64_t> samples, double p) {
  std::sort(samples.begin(), samples.end());
  const size_t index = std::min(samples.size() - 1, static_cast<size_t>(p * samples.size()));
  return static_cast<double>(samples[index]) / 1000.0;
}

inline void Report(const char* what, const std::vector<uint64_t>& samples) {
  std::printf("%-22s p50 %8.1f us   p99 %8.1f us   min %8.1f us   max %8.1f us\n", what,
              Percentile(samples, 0.5), Percentile(samples, 0.99), Percentile(samples, 0.0),
              Percentile(samples, 1.0));
}

// The test daemon serving `service` in a private runtime directory, so a
// benchmark never meets a real daemon or a parallel run. Stopped, and the
// directory removed, when destroyed.
class PrivateTestDaemon {
 public:
  PrivateTestDaemon(const char* launch, const char* daemon, const std::string& service,
                    std::vector<std::string> flags = {})
      : root_((std::filesystem::temp_directory_path() / "kx-bench.XXXXXX").string()) {
    if (!mkdtemp(root_.data())) return;
    setenv("XDG_RUNTIME_DIR", root_.c_str(), 1);
    setenv("KX_SERVICE_DIR", (root_ + "/services").c_str(), 1);
    setenv("KX_NOTIFY_DIR", (root_ + "/notify").c_str(), 1);
    std::vector<std::string> args = {"--name", service, "--", daemon, "--service", service,
                                     "--log", root_ + "/received"};
    args.insert(args.end(), flags.begin(), flags.end());
    launcher_ = ChildProcess::Spawn(launch, args);
    if (!launcher_) return;
    const std::string socket = *ServiceSocketPath(service);
    while (access(socket.c_str(), F_OK) != 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ~PrivateTestDaemon() {
    launcher_.reset();
    std::filesystem::remove_all(root_);
  }
  bool running() const { return launcher_.has_value(); }
  const std::string& root() const { return root_; }

 private:
  std::string root_;
  std::optional<ChildProcess> launcher_;
};

}  // namespace kx::bench
