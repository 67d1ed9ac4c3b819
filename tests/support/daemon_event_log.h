// The event log of the tests' fake daemons: one line per event,
// "<pid>\t<text>\n", appended to a file the test reads back. O_APPEND and
// one write per line: lines of parallel peers and of successive daemons
// (restarts) never interleave.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace kx::test {

inline int& DaemonEventLogDescriptor() {
  static int descriptor = -1;
  return descriptor;
}

// Opens the log for appending; on failure says why on stderr and returns false.
inline bool OpenDaemonEventLog(const std::string& path, const char* program) {
  DaemonEventLogDescriptor() = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (DaemonEventLogDescriptor() >= 0) return true;
  std::fprintf(stderr, "%s: cannot open %s: %s\n", program, path.c_str(), std::strerror(errno));
  return false;
}

inline void RecordDaemonEvent(const std::string& line) {
  const std::string text = std::to_string(getpid()) + "\t" + line + "\n";
  [[maybe_unused]] ssize_t n = write(DaemonEventLogDescriptor(), text.data(), text.size());
}

}  // namespace kx::test
