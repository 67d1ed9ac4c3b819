#include "platform/message/message_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

#include "kx/log.h"
#include "platform/process/process_info.h"

namespace kx {
namespace {

constexpr int kFirstActivationFd = 3;

bool FillAddress(const std::string& path, sockaddr_un& address) {
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

ScopedFd NewSocket() {
  return ScopedFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Connects without waiting; errno on failure.
int TryConnect(int fd, const sockaddr_un& address) {
  while (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

bool IsListeningSeqpacket(int fd) {
  int value = 0;
  socklen_t length = sizeof value;
  if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &value, &length) != 0 || value != AF_UNIX) return false;
  length = sizeof value;
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &value, &length) != 0 || value != SOCK_SEQPACKET)
    return false;
  length = sizeof value;
  return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &value, &length) == 0 && value == 1;
}

// A positive decimal number, or -1.
long ParseCount(const char* s) {
  if (!s || !*s) return -1;
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(s, &end, 10);
  return (errno || *end || v <= 0) ? -1 : v;
}

}  // namespace

std::optional<std::string> ServiceSocketPath(std::string_view name) {
  if (name.empty() || name == "." || name == ".." ||
      name.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos)
    return std::nullopt;
  std::string directory;
  try {
    directory = ServiceDirectory();
  } catch (const std::exception& e) {
    KXLOG(3, "No service directory: %s", e.what());
    return std::nullopt;
  }
  std::string path = directory + "/" + std::string(name);
  if (path.size() >= sizeof(sockaddr_un::sun_path)) return std::nullopt;
  return path;
}

ScopedFd ConnectToService(std::string_view name, int* error) {
  std::optional<std::string> path = ServiceSocketPath(name);
  sockaddr_un address;
  if (!path || !FillAddress(*path, address)) {
    *error = EINVAL;
    return ScopedFd();
  }
  ScopedFd fd = NewSocket();
  if (!fd) {
    *error = errno;
    return fd;
  }
  // Non-blocking, so that a full backlog reports EAGAIN instead of parking
  // the caller; the connected socket then blocks for its reader.
  if (int e = TryConnect(fd.get(), address)) {
    *error = e;
    return ScopedFd();
  }
  int flags = fcntl(fd.get(), F_GETFL);
  if (flags < 0 || fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    *error = errno;
    return ScopedFd();
  }
  *error = 0;
  return fd;
}

std::optional<ServiceListener> ListenOnService(std::string_view name, std::string* error) {
  std::optional<std::string> path = ServiceSocketPath(name);
  sockaddr_un address;
  if (!path || !FillAddress(*path, address)) {
    *error = "invalid service name";
    return std::nullopt;
  }
  // The socket is bound and made to listen under a name of this process's
  // own, and only then linked to the service's name: a client that finds
  // the service's file can connect at once, whereas a file bound but not
  // yet listening refuses it as if the service had gone. Unlike rename,
  // link never replaces an existing file.
  static std::atomic<unsigned> staged{0};
  const std::string stagingName =
      ".listening." + std::to_string(getpid()) + "." + std::to_string(staged.fetch_add(1));
  std::optional<std::string> staging = ServiceSocketPath(stagingName);
  sockaddr_un stagingAddress;
  if (!staging || !FillAddress(*staging, stagingAddress)) {
    *error = "service directory path too long";
    return std::nullopt;
  }
  ServiceListener listener;
  listener.fd = NewSocket();
  if (!listener.fd) {
    *error = std::strerror(errno);
    return std::nullopt;
  }
  unlink(staging->c_str());  // left behind by an earlier process with this pid
  if (bind(listener.fd.get(), reinterpret_cast<const sockaddr*>(&stagingAddress),
           sizeof stagingAddress) != 0 ||
      chmod(staging->c_str(), 0600) != 0 || listen(listener.fd.get(), SOMAXCONN) != 0) {
    *error = std::strerror(errno);
    unlink(staging->c_str());
    return std::nullopt;
  }
  bool linked = false;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (link(staging->c_str(), path->c_str()) == 0) {
      linked = true;
      break;
    }
    if (errno != EEXIST || attempt > 0) {
      *error = std::strerror(errno);
      break;
    }
    // The name is taken: replace the file only when it is a socket that
    // refuses connections, i.e. its listener has gone.
    struct stat st;
    if (lstat(path->c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
      *error = "service path exists and is not a socket";
      break;
    }
    ScopedFd probe = NewSocket();
    if (probe && TryConnect(probe.get(), address) != ECONNREFUSED) {
      *error = "service is already running";
      break;
    }
    unlink(path->c_str());
  }
  unlink(staging->c_str());
  if (!linked) return std::nullopt;
  listener.path = *path;
  // Taken once the links are final: each link and unlink changes the
  // file's change time.
  struct stat st;
  if (lstat(path->c_str(), &st) == 0) {
    listener.device = st.st_dev;
    listener.inode = st.st_ino;
    listener.changed = st.st_ctim;
  }
  // The descriptor stays non-blocking: the accepting thread waits with poll
  // and must not park in accept when another process took the connection.
  return listener;
}

void RemoveServiceSocketFile(const ServiceListener& listener) {
  struct stat st;
  if (listener.path.empty() || lstat(listener.path.c_str(), &st) != 0) return;
  if (st.st_dev == listener.device && st.st_ino == listener.inode &&
      st.st_ctim.tv_sec == listener.changed.tv_sec &&
      st.st_ctim.tv_nsec == listener.changed.tv_nsec)
    unlink(listener.path.c_str());
}

ScopedFd TakeActivationSocket(std::string_view name) {
  static std::mutex mutex;
  static std::set<int> taken;
  std::lock_guard lock(mutex);

  const long pid = ParseCount(std::getenv("LISTEN_PID"));
  const long count = ParseCount(std::getenv("LISTEN_FDS"));
  if (pid != static_cast<long>(getpid()) || count <= 0) return ScopedFd();

  long index = -1;
  if (const char* names = std::getenv("LISTEN_FDNAMES")) {
    std::string_view rest(names);
    for (long i = 0; i < count && index < 0; ++i) {
      size_t colon = rest.find(':');
      if (rest.substr(0, colon) == name) index = i;
      if (colon == std::string_view::npos) break;
      rest.remove_prefix(colon + 1);
    }
  } else if (count == 1) {
    index = 0;
  }
  if (index < 0) return ScopedFd();
  const int fd = kFirstActivationFd + static_cast<int>(index);
  if (taken.contains(fd)) return ScopedFd();
  if (!IsListeningSeqpacket(fd)) {
    KXLOG(3, "Descriptor %d passed for service %s is not a listening seqpacket socket", fd,
          std::string(name));
    return ScopedFd();
  }
  taken.insert(fd);
  // Close-on-exec is a descriptor flag, private to this process; the file
  // status flags are shared with the launcher and stay as they are.
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  return ScopedFd(fd);
}

}  // namespace kx
