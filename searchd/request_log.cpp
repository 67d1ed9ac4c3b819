#include "searchd/request_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kx/format.h"
#include "kx/log.h"

namespace kx::searchd {

RequestLog::RequestLog(const std::string& path) {
  if (path.empty()) return;
  fd_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (!fd_) KXLOG(3, "kx-searchd: request log %s not opened: %s", path, std::string(std::strerror(errno)));
}

void RequestLog::record(const char* request, uint32_t queryID) {
  if (!fd_) return;
  const std::string line = Format("%d %s %u\n", static_cast<int>(::getpid()), request, queryID);
  // O_APPEND makes each write land whole at the end, whatever other runs
  // wrote meanwhile.
  [[maybe_unused]] const ssize_t written = ::write(fd_.get(), line.data(), line.size());
}

}  // namespace kx::searchd
