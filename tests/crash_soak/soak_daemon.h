// kx-searchd over a private copy of the sample data, run by kx-launch,
// which starts it again for the next client after it was killed. The
// daemon traces its query requests into a file shared by all its runs, so
// the soak can count how often one query reached a daemon.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/process/child_process.h"

namespace kx::soak {

class SoakDaemon {
 public:
  // `buildDir` holds tools/kx-launch and tools/kx-searchd; the index, the
  // data copy and the trace go under `workDir`.
  SoakDaemon(const std::string& buildDir, const std::string& dataDir, const std::string& workDir,
             const std::string& service);

  // The pid of the daemon running now; 0 when none runs.
  pid_t pid() const;
  // Waits until a daemon runs; its pid, or 0 after `timeout`.
  pid_t waitForPid(std::chrono::milliseconds timeout) const;
  pid_t launcherPid() const { return launcher_ ? launcher_->pid() : 0; }
  // SIGKILLs the running daemon; its pid, 0 when none ran.
  pid_t kill();
  // SIGSTOPs the running daemon, so that what clients send it waits
  // unanswered until it is killed; its pid, 0 when none ran.
  pid_t freeze();

  // How many "OpenQuery" requests for `queryID` reached any daemon run.
  size_t openCount(uint32_t queryID) const;
  // Over the whole run: the most "OpenQuery" requests any one query id
  // had, and how many came after a "CloseQuery" for the same id.
  struct TraceSummary {
    size_t mostOpens = 0;
    size_t opensAfterClose = 0;
  };
  TraceSummary summarizeTrace() const;
  // Waits until openCount(queryID) >= count; false after `timeout`.
  bool waitForOpenCount(uint32_t queryID, size_t count, std::chrono::milliseconds timeout) const;

  // Lines of the launcher's and the daemons' standard error that tell of a
  // daemon ending other than by our SIGKILL (an exit status, another
  // signal) or of a sanitizer report; empty when there were none.
  std::string faults() const;

  const std::string& dataDir() const { return dataDir_; }

 private:
  std::string dataDir_;
  std::string traceFile_;
  std::string errorFile_;
  std::optional<ChildProcess> launcher_;
};

}  // namespace kx::soak
