#include "tests/crash_soak/soak_daemon.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/message/message_socket.h"

namespace kx::soak {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Short, since the soak kills the daemon on purpose many times a minute;
// the launcher's default pause grows to seconds for a daemon dying young.
constexpr const char* kRestartPauseMs = "50";

std::string Tool(const std::string& buildDir, const std::string& name) {
  return buildDir + "/tools/" + name + "/" + name;
}

}  // namespace

SoakDaemon::SoakDaemon(const std::string& buildDir, const std::string& dataDir,
                       const std::string& workDir, const std::string& service)
    : dataDir_(workDir + "/data"), traceFile_(workDir + "/requests.trace"), errorFile_(workDir + "/launcher.err") {
  namespace fs = std::filesystem;
  // A copy: the daemon's index stamps and any change it made stay private.
  fs::copy(dataDir, dataDir_, fs::copy_options::recursive);
  // Through a shell only to send standard error (the launcher's and every
  // daemon's) to a file; `exec` keeps the launcher's pid the child's.
  launcher_ = ChildProcess::Spawn(
      "/bin/sh",
      {"-c", "err=$1; shift; exec \"$@\" 2>>\"$err\"", "sh", errorFile_, Tool(buildDir, "kx-launch"),
       "--name", service, "--max-pause", kRestartPauseMs, "--", Tool(buildDir, "kx-searchd"),
       "--service", service, "--data-root", dataDir_, "--index", workDir + "/index",
       "--request-log", traceFile_});
  if (!launcher_) throw std::runtime_error("kx-launch cannot be started");
  const std::string socket = ServiceSocketPath(service).value_or("");
  for (auto deadline = Clock::now() + 10s; access(socket.c_str(), F_OK) != 0;) {
    if (Clock::now() > deadline) throw std::runtime_error("kx-launch made no socket " + socket);
    std::this_thread::sleep_for(5ms);
  }
}

pid_t SoakDaemon::pid() const {
  const std::string launcher = std::to_string(launcherPid());
  std::ifstream children("/proc/" + launcher + "/task/" + launcher + "/children");
  pid_t pid = 0;
  children >> pid;
  return pid;
}

pid_t SoakDaemon::waitForPid(std::chrono::milliseconds timeout) const {
  for (auto deadline = Clock::now() + timeout;; std::this_thread::sleep_for(1ms)) {
    if (pid_t p = pid(); p > 0 || Clock::now() > deadline) return p;
  }
}

pid_t SoakDaemon::kill() {
  const pid_t p = pid();
  if (p > 0) ::kill(p, SIGKILL);
  return p;
}

pid_t SoakDaemon::freeze() {
  const pid_t p = pid();
  if (p > 0) ::kill(p, SIGSTOP);
  return p;
}

size_t SoakDaemon::openCount(uint32_t queryID) const {
  std::ifstream trace(traceFile_);
  size_t count = 0;
  for (std::string line; std::getline(trace, line);) {
    std::istringstream fields(line);
    std::string pid, request;
    uint32_t id = 0;
    if (fields >> pid >> request >> id && request == "OpenQuery" && id == queryID) ++count;
  }
  return count;
}

std::string SoakDaemon::faults() const {
  std::ifstream errors(errorFile_);
  std::string found;
  for (std::string line; std::getline(errors, line);) {
    const bool ownKill = line.find("ended by signal 9") != std::string::npos;
    const bool ended = line.find("exited with status") != std::string::npos ||
                       (line.find("ended by signal") != std::string::npos && !ownKill);
    if (ended || line.find("Sanitizer") != std::string::npos || line.find("runtime error") != std::string::npos)
      found += line + "\n";
  }
  return found;
}

SoakDaemon::TraceSummary SoakDaemon::summarizeTrace() const {
  std::ifstream trace(traceFile_);
  std::map<uint32_t, size_t> opens;
  std::set<uint32_t> closed;
  TraceSummary summary;
  for (std::string line; std::getline(trace, line);) {
    std::istringstream fields(line);
    std::string pid, request;
    uint32_t id = 0;
    if (!(fields >> pid >> request >> id)) continue;
    if (request == "CloseQuery") closed.insert(id);
    if (request != "OpenQuery") continue;
    summary.mostOpens = std::max(summary.mostOpens, ++opens[id]);
    summary.opensAfterClose += closed.count(id);
  }
  return summary;
}

bool SoakDaemon::waitForOpenCount(uint32_t queryID, size_t count,
                                  std::chrono::milliseconds timeout) const {
  for (auto deadline = Clock::now() + timeout; openCount(queryID) < count;) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

}  // namespace kx::soak
