#include "platform/process/child_process.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "kx/log.h"

extern char** environ;

namespace kx {
namespace {

int StatusFrom(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

}  // namespace

std::optional<ChildProcess> ChildProcess::Spawn(const std::string& path,
                                                const std::vector<std::string>& args) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  int error = posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ);
  if (error != 0) {
    KXLOG(3, "Cannot start %s: %s", path, std::strerror(error));
    return std::nullopt;
  }
  return ChildProcess(pid);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    terminate();
    pid_ = std::exchange(other.pid_, -1);
  }
  return *this;
}

ChildProcess::~ChildProcess() { terminate(); }

void ChildProcess::terminate() {
  if (pid_ < 0) return;
  kill(pid_, SIGTERM);
  int raw = 0;
  while (waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

std::optional<int> ChildProcess::wait(std::optional<std::chrono::milliseconds> timeout) {
  if (pid_ < 0) return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + timeout.value_or(std::chrono::milliseconds(0));
  int raw = 0;
  for (;;) {
    pid_t r = waitpid(pid_, &raw, timeout ? WNOHANG : 0);
    if (r == pid_) break;
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {  // not our child any more: nothing left to reap
      pid_ = -1;
      return std::nullopt;
    }
    // r == 0: still running (WNOHANG).
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  pid_ = -1;
  return StatusFrom(raw);
}

}  // namespace kx
