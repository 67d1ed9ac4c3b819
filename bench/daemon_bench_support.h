// What the benchmarks of kx-searchd share: clocks, percentiles of
// millisecond samples, a process's memory, the generated corpus written
// into a fresh index the way the indexer writes it, and the daemon started
// on that index.
#pragma once

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/message/message_socket.h"
#include "platform/process/child_process.h"
#include "searchd/index.h"

namespace kx::bench {

inline uint64_t ClockNanoseconds(clockid_t clock) {
  timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}
inline uint64_t Now() { return ClockNanoseconds(CLOCK_MONOTONIC); }
inline uint64_t CpuNow() { return ClockNanoseconds(CLOCK_PROCESS_CPUTIME_ID); }

// The p-th percentile (0..1) of `v`; NaN when empty.
inline double PercentileOf(std::vector<double> v, double p) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

// VmRSS and VmHWM of a process, in KiB (-1 when unknown).
struct ProcessMemory {
  long rssKiB = -1;
  long hwmKiB = -1;
};
inline ProcessMemory MemoryOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  ProcessMemory memory;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) memory.rssKiB = std::atol(line.c_str() + 6);
    if (line.rfind("VmHWM:", 0) == 0) memory.hwmKiB = std::atol(line.c_str() + 6);
  }
  return memory;
}

struct BuildTime {
  double wallSeconds;
  double cpuSeconds;
};
// Writes `items` into a fresh index at `path`, one file per item, committed
// in groups of 2048 as the indexer does.
inline BuildTime BuildIndex(const std::string& path, const std::vector<searchd::Item>& items) {
  searchd::Index index(path, false);
  const uint64_t start = Now(), cpuStart = CpuNow();
  for (size_t i = 0; i < items.size();) {
    searchd::Index::Batch batch(index);
    for (size_t end = std::min(items.size(), i + 2048); i < end; ++i)
      index.replaceFile("generated", "/generated/" + std::to_string(i), 1, {items[i]});
    batch.commit();
  }
  return {static_cast<double>(Now() - start) / 1e9, static_cast<double>(CpuNow() - cpuStart) / 1e9};
}

// kx-searchd serving `service` from the index in `indexDir`, with no source
// directories (so it keeps the generated items); returns once it listens.
inline std::optional<ChildProcess> StartSearchd(const char* program, const std::string& service,
                                                const std::string& indexDir, const std::string& emptyDir) {
  std::optional<ChildProcess> daemon = ChildProcess::Spawn(
      program, {"--foreground", "--service", service, "--index", indexDir, "--data-root", emptyDir});
  const std::string socket = *ServiceSocketPath(service);
  for (int i = 0; daemon && i < 3000 && access(socket.c_str(), F_OK) != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return daemon;
}

}  // namespace kx::bench
