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

#include "base/log_sink.h"
#include "base/reentrant_once.h"

std::atomic<int32_t> gKXLogLevel{0};

namespace kx {
namespace {

// _haveCheckedLogLevel: done once the preference was read or a level was set.
ReentrantOnce haveCheckedLogLevel;
// Orders the store of the preference's value against setKXLogLevel, so that
// an explicit level always wins over a preference read that overlaps it.
std::mutex levelStoreMutex;
std::atomic<int32_t> outputLevel{0};
std::atomic<LogFileSink*> installedSink{nullptr};

LogFileSink* InstalledSink() { return installedSink.load(std::memory_order_acquire); }

int32_t logLevel() {
  if (haveCheckedLogLevel.TryBegin()) [[unlikely]] {
    // A store that cannot be read counts as a missing preference: logging
    // never throws into its caller, and waiting threads must be released.
    int64_t preferred = 0;
    if (LogFileSink* sink = InstalledSink()) {
      try {
        preferred = sink->PreferredLevel();
      } catch (...) {
      }
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

}  // namespace

void InstallLogFileSink(LogFileSink* sink) {
  installedSink.store(sink, std::memory_order_release);
}

int32_t CheckedLogLevel() { return logLevel(); }

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

void EmitToConsole(std::string text) {
  text += '\n';
  WriteFully(STDERR_FILENO, text);
}

namespace {

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
  if (kx::LogFileSink* sink = kx::InstalledSink())
    sink->Write(base, line, kx::FormatV(format, args), file >= 7);
}

void setKXLogLevel(int level) {
  std::lock_guard lock(kx::levelStoreMutex);
  gKXLogLevel.store(level, std::memory_order_relaxed);
  kx::haveCheckedLogLevel.Finish();
}

void setKXLogOutputLevel(int level) {
  kx::outputLevel.store(level, std::memory_order_relaxed);
}
