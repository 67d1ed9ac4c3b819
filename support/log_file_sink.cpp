// The log's file sink: "search.log" under the diagnostic-log directory, with
// the process, pid and thread in every line, and the "KXLogLevel" user
// default as the file threshold.
//
// Invariants: the file is opened (and rotated) at most once per process, by
// the first line that reaches it; each line reaches the file with one
// write(2) on an O_APPEND descriptor, so concurrent writers never interleave.
#include "kx/log_init.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <mutex>
#include <system_error>

#include "base/log_sink.h"
#include "base/log_timestamp.h"
#include "base/reentrant_once.h"
#include "kx/format.h"
#include "platform/prefs/preferences.h"
#include "platform/process/process_info.h"
#include "support/log_file.h"

namespace kx {
namespace {

class FileSink final : public LogFileSink {
 public:
  int32_t PreferredLevel() override {
    const int64_t preferred = UserDefaults::IntegerForKey("KXLogLevel");
    return static_cast<int32_t>(std::clamp<int64_t>(preferred, INT32_MIN, INT32_MAX));
  }

  void Write(const char* base, int line, const std::string& message, bool verbose) override {
    const std::string timestamp = LogTimestampNow();
    const long pid = static_cast<long>(getpid());
    const std::string text =
        verbose ? Format("%@|%@|%ld|%@| %s:%d %@\n", timestamp, ProcessName(), pid,
                         CurrentThreadDescription(), base, line, message)
                : Format("%@|%@|%ld|%@| %@\n", timestamp, ProcessName(), pid,
                         CurrentThreadDescription(), message);
    const int fd = logFH();
    if (fd >= 0) WriteFully(fd, text);
  }

 private:
  // The descriptor of "search.log", or -1. Opens (and rotates) on first use;
  // a failure is reported once on the console and never retried.
  int logFH() {
    if (haveCheckedLogPath_.TryBegin()) [[unlikely]] {
      struct FinishOnExit {
        ReentrantOnce& once;
        ~FinishOnExit() { once.Finish(); }
      } finish{haveCheckedLogPath_};
      const LogFileOpenResult opened = OpenLogFile(LogDirectoryPath());
      if (opened.fd >= 0) {
        logFd_.store(opened.fd, std::memory_order_release);
      } else if (!warnedAboutOpenFailure_.exchange(true, std::memory_order_relaxed)) {
        EmitToConsole(Format("Warning: KXLog() couldn't open the log file %s: returned errno %ld, \"%s\"",
                             opened.path, static_cast<long>(opened.error),
                             std::generic_category().message(opened.error)));
      }
    }
    return logFd_.load(std::memory_order_acquire);
  }

  ReentrantOnce haveCheckedLogPath_;
  std::atomic<int> logFd_{-1};
  std::atomic<bool> warnedAboutOpenFailure_{false};
};

// Never destroyed: threads may log while the process exits.
FileSink& TheFileSink() {
  static FileSink* const sink = new FileSink;
  return *sink;
}

// Installed during static initialisation, before any thread of the library
// runs; the library is linked whole, so this object is always present.
[[maybe_unused]] const bool installed = (InstallLogFileSink(&TheFileSink()), true);

std::once_flag logInitOnce;

}  // namespace
}  // namespace kx

void KXLogInit() {
  std::call_once(kx::logInitOnce, [] { kx::CheckedLogLevel(); });
}
