// An optional trace of the query requests the daemon takes, one line per
// request: "<daemon pid> <request name> <query id>". Opened in append mode
// and written with one write(2) per line, so several daemon runs (a daemon
// killed and restarted) share one file and a kill never leaves half a line
// in it. Crash tests read it to count how often a query reached a daemon.
#pragma once

#include <cstdint>
#include <string>

#include "platform/message/message_fd.h"

namespace kx::searchd {

class RequestLog {
 public:
  // Disabled when `path` is empty; an unwritable path is logged and
  // disables the trace.
  explicit RequestLog(const std::string& path);

  void record(const char* request, uint32_t queryID);

 private:
  ScopedFd fd_;
};

}  // namespace kx::searchd
