// The process-wide diagnostic log.
//
// Invariants:
// - No lock is held while a message is formatted or written: a "%@" whose
//   description logs re-enters KXLogV freely.
// - Each line reaches the file with one write(2) on an O_APPEND descriptor,
//   so lines of concurrent writers (threads or processes) never interleave.
// - The preference is consulted at most once per process, and never after an
//   explicit setKXLogLevel; the log file is opened (and rotated) at most once
//   per process, by the first line that reaches the file.
#include "kx/log.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <unistd.h>

#include <mutex>
#include <system_error>
#include <thread>

#include "platform/preferences.h"
#include "platform/process_info.h"
#include "support/log_file.h"
#include "support/log_timestamp.h"

std::atomic<int32_t> gKXLogLevel{0};

namespace kx {
namespace {

// Once-only initialisation that tolerates re-entry. Other threads wait until
// the initialisation has finished; the thread running it sees it unfinished
// and carries on, so a line logged from inside the initialisation is handled
// as if the initialisation had not happened yet instead of deadlocking.
class ReentrantOnce {
 public:
  // True when the caller is to run the initialisation and then call Finish().
  bool TryBegin() {
    int state = state_.load(std::memory_order_acquire);
    for (;;) {
      if (state == kDone) return false;
      if (state == kUnstarted) {
        if (state_.compare_exchange_weak(state, kRunning, std::memory_order_acq_rel,
                                         std::memory_order_acquire)) {
          runner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
          return true;
        }
        continue;
      }
      // A thread compares equal only to its own id, so a stale runner_ can
      // only make another thread wait, never skip.
      if (runner_.load(std::memory_order_relaxed) == std::this_thread::get_id()) return false;
      state_.wait(kRunning, std::memory_order_acquire);
      state = state_.load(std::memory_order_acquire);
    }
  }
  void Finish() {
    state_.store(kDone, std::memory_order_release);
    state_.notify_all();
  }
  bool done() const { return state_.load(std::memory_order_acquire) == kDone; }

 private:
  enum : int { kUnstarted, kRunning, kDone };
  std::atomic<int> state_{kUnstarted};
  std::atomic<std::thread::id> runner_{};
};

// _haveCheckedLogLevel: done once the preference was read or a level was set.
ReentrantOnce haveCheckedLogLevel;
// Orders the store of the preference's value against setKXLogLevel, so that
// an explicit level always wins over a preference read that overlaps it.
std::mutex levelStoreMutex;
std::atomic<int32_t> outputLevel{0};

// logFH state. logFd stays -1 when the open failed.
ReentrantOnce haveCheckedLogPath;
std::atomic<int> logFd{-1};
std::atomic<bool> warnedAboutLogFileOpenFailure{false};

std::once_flag logInitOnce;

int32_t logLevel() {
  if (haveCheckedLogLevel.TryBegin()) [[unlikely]] {
    // A store that cannot be read counts as a missing preference: logging
    // never throws into its caller, and waiting threads must be released.
    int64_t preferred = 0;
    try {
      preferred = UserDefaults::IntegerForKey("KXLogLevel");
    } catch (...) {
    }
    preferred = std::clamp<int64_t>(preferred, INT32_MIN, INT32_MAX);
    std::lock_guard lock(levelStoreMutex);
    if (!haveCheckedLogLevel.done()) {
      gKXLogLevel.store(static_cast<int32_t>(preferred), std::memory_order_relaxed);
      haveCheckedLogLevel.Finish();
    }
  }
  return gKXLogLevel.load(std::memory_order_relaxed);
}

// Writes all of `text`; one write(2) unless the kernel accepts only part.
void WriteFully(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    text.remove_prefix(static_cast<size_t>(written));
  }
}

// The console sink: standard error, one line per message.
void EmitToConsole(std::string text) {
  text += '\n';
  WriteFully(STDERR_FILENO, text);
}

// The descriptor of "search.log", or -1. Opens (and rotates) on first use.
int logFH() {
  if (haveCheckedLogPath.TryBegin()) [[unlikely]] {
    struct FinishOnExit {
      ~FinishOnExit() { haveCheckedLogPath.Finish(); }
    } finish;
    const LogFileOpenResult opened = OpenLogFile(LogDirectoryPath());
    if (opened.fd >= 0) {
      logFd.store(opened.fd, std::memory_order_release);
    } else if (!warnedAboutLogFileOpenFailure.exchange(true, std::memory_order_relaxed)) {
      EmitToConsole(Format("Warning: KXLog() couldn't open the log file %s: returned errno %ld, \"%s\"",
                           opened.path, static_cast<long>(opened.error),
                           std::generic_category().message(opened.error)));
    }
  }
  return logFd.load(std::memory_order_acquire);
}

const char* BaseName(const char* path) {
  if (path == nullptr) return "";
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') base = p + 1;
  }
  return base;
}

// Keeps the caller's errno: sites often log between a failing call and the
// code that inspects errno.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }

 private:
  int saved_;
};

}  // namespace
}  // namespace kx

void KXLogV(const char* path, int line, int level, std::string_view format,
            std::span<const kx::FormatArg> args) {
  const kx::ErrnoKeeper keepErrno;
  const char* base = kx::BaseName(path);
  const int32_t console = kx::outputLevel.load(std::memory_order_relaxed);
  if (level > kx::logLevel() && level > console) return;

  // Each sink formats the message itself; the two line shapes depend on
  // their own thresholds and are deliberately independent.
  if (level <= console) {
    std::string message = kx::FormatV(format, args);
    kx::EmitToConsole(console >= 7 ? kx::Format("%s:%d %@", base, line, message)
                                   : std::move(message));
  }

  const int32_t file = kx::logLevel();
  if (level > file) return;
  const std::string timestamp = kx::LogTimestampNow();
  const std::string message = kx::FormatV(format, args);
  const long pid = static_cast<long>(getpid());
  const std::string text =
      file >= 7 ? kx::Format("%@|%@|%ld|%@| %s:%d %@\n", timestamp, kx::ProcessName(), pid,
                             kx::CurrentThreadDescription(), base, line, message)
                : kx::Format("%@|%@|%ld|%@| %@\n", timestamp, kx::ProcessName(), pid,
                             kx::CurrentThreadDescription(), message);
  const int fd = kx::logFH();
  if (fd >= 0) kx::WriteFully(fd, text);
}

void KXLogInit() {
  std::call_once(kx::logInitOnce, [] { kx::logLevel(); });
}

void setKXLogLevel(int level) {
  std::lock_guard lock(kx::levelStoreMutex);
  gKXLogLevel.store(level, std::memory_order_relaxed);
  kx::haveCheckedLogLevel.Finish();
}

void setKXLogOutputLevel(int level) {
  kx::outputLevel.store(level, std::memory_order_relaxed);
}
