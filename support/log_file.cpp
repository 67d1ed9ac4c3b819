#include "support/log_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "platform/process/process_info.h"

namespace kx {

std::string LogDirectoryPath() {
  return HomeDirectory() + "/Library/Logs/FaultKeeper/DiagnosticLogs/Search/";
}

std::string logFilePathWithNumber(std::string_view directory, long number) {
  std::string path(directory);
  if (!path.empty() && path.back() != '/') path += '/';
  if (number == 0) {
    path += "search.log";
  } else {
    path += "search.";
    path += std::to_string(number);
    path += ".log";
  }
  return path;
}

bool RotateLogFilesIfNeeded(std::string_view directory) {
  struct stat st;
  const std::string live = logFilePathWithNumber(directory, 0);
  // A missing or unreadable live file counts as empty.
  if (stat(live.c_str(), &st) != 0 || st.st_size <= kLogRotationSize) return false;
  unlink(logFilePathWithNumber(directory, kLogGenerations - 1).c_str());
  for (long n = kLogGenerations - 2; n >= 0; --n) {
    rename(logFilePathWithNumber(directory, n).c_str(),
           logFilePathWithNumber(directory, n + 1).c_str());
  }
  return true;
}

LogFileOpenResult OpenLogFile(std::string_view directory) {
  // A trailing separator would leave an empty last component, which
  // create_directories reports as a failure after creating the rest.
  std::string_view trimmed = directory;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.remove_suffix(1);
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(trimmed), ignored);
  RotateLogFilesIfNeeded(directory);
  LogFileOpenResult result;
  result.path = logFilePathWithNumber(directory, 0);
  do {
    result.fd = open(result.path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  } while (result.fd < 0 && errno == EINTR);
  if (result.fd < 0) result.error = errno;
  return result;
}

}  // namespace kx
