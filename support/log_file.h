// The rotating diagnostic log file: its location, its generations and the
// one-time rotation done before a process first opens it.
//
// Layout of the log directory: "search.log" is the live file; "search.1.log"
// to "search.19.log" are older generations, 19 the oldest. At most
// kLogGenerations files exist.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kx {

inline constexpr int kLogGenerations = 20;
// The live file is rotated only when strictly larger than this.
inline constexpr int64_t kLogRotationSize = 16 * 1024 * 1024;

// "<home>/Library/Logs/FaultKeeper/DiagnosticLogs/Search/" (trailing slash
// kept, home from kx::HomeDirectory()).
std::string LogDirectoryPath();

// Number 0 names "search.log"; any other number n names "search.<n>.log".
// Joined to `directory` as a path component.
std::string logFilePathWithNumber(std::string_view directory, long number);

// When the live file is larger than kLogRotationSize, drops the oldest
// generation and shifts every other one up by one, so that the live file
// becomes generation 1. A missing live file counts as empty. Failures of
// single deletes and renames are ignored. Returns true when it rotated.
bool RotateLogFilesIfNeeded(std::string_view directory);

struct LogFileOpenResult {
  int fd = -1;     // -1 when the open failed
  int error = 0;   // errno of the failed open
  std::string path;
};

// Creates `directory` (with intermediates; failure ignored), rotates, and
// opens the live file for appending (O_RDWR|O_APPEND|O_CREAT|O_CLOEXEC, 0600).
LogFileOpenResult OpenLogFile(std::string_view directory);

}  // namespace kx
