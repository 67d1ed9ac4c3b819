// A child process started with posix_spawn (never a bare fork: the parent
// is threaded, and a forked child could inherit a lock held by another
// thread).
//
// Invariant: a ChildProcess that was not waited for is terminated (SIGTERM)
// and reaped when it is destroyed, so no zombie outlives its owner.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kx {

class ChildProcess {
 public:
  // Starts `path` with `args` as argv[1...] and this process's environment.
  // nullopt (logged at level 3) when it cannot be started.
  static std::optional<ChildProcess> Spawn(const std::string& path,
                                           const std::vector<std::string>& args);

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }
  // Waits for the child to end: its exit status, or 128 + the signal that
  // ended it. nullopt when `timeout` passes first (the child keeps running)
  // or it was already waited for.
  std::optional<int> wait(std::optional<std::chrono::milliseconds> timeout = std::nullopt);

 private:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  void terminate();
  pid_t pid_ = -1;  // -1 once reaped
};

}  // namespace kx
