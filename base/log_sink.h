// The seam between the logging core and the layers that know where the log
// file lives and how a process names itself.
//
// The core (console sink, thresholds, formatting) has no platform knowledge;
// the file sink is installed once by a higher layer during static
// initialisation and lives for the whole process.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kx {

class LogFileSink {
 public:
  virtual ~LogFileSink() = default;
  // The preferred file threshold, consulted at most once per process.
  virtual int32_t PreferredLevel() = 0;
  // Writes one formatted message as a file line; `verbose` adds the source
  // location. Must not throw and must tolerate re-entry.
  virtual void Write(const char* baseName, int line, const std::string& message,
                     bool verbose) = 0;
};

// Installs the process's file sink; it must outlive every logging thread.
void InstallLogFileSink(LogFileSink* sink);

// The file threshold, consulting the sink's preference on first use.
int32_t CheckedLogLevel();

// Writes all of `text` to `fd`, retrying after EINTR and partial writes.
void WriteFully(int fd, std::string_view text);

// Standard error, one line per message.
void EmitToConsole(std::string text);

}  // namespace kx
