// Sockets of named services. A service is an AF_UNIX SOCK_SEQPACKET socket
// file named after it in the service directory (kx::ServiceDirectory(),
// mode 0700). Its listening socket belongs either to the service itself or
// to a launcher that passes it on under the LISTEN_FDS protocol (systemd
// socket units, kx-launch), so that clients can connect while the daemon is
// not running yet or restarting: they wait in the listen backlog.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/message/message_fd.h"

namespace kx {

// <service directory>/<name>; nullopt for names that cannot name a socket
// file (empty, ".", "..", containing '/' or NUL, too long for sockaddr_un)
// or when the service directory is unusable.
std::optional<std::string> ServiceSocketPath(std::string_view name);

// Connects to the named service; the socket is in blocking mode and
// close-on-exec. Invalid on failure, with `*error` set to the errno: EAGAIN
// means the service's backlog is full and a later attempt may succeed; any
// other value means the service cannot be reached.
ScopedFd ConnectToService(std::string_view name, int* error);

// A listening socket bound to a service's socket file.
struct ServiceListener {
  ScopedFd fd;
  std::string path;
  // Identity of the socket file this listener created, so that only that
  // file is ever removed. File systems reuse inode numbers at once, so the
  // change time (nanoseconds) is part of it.
  dev_t device = 0;
  ino_t inode = 0;
  timespec changed{};
};

// Binds and listens on the named service's socket file. The file appears
// only once the socket listens, so a client that finds it can connect. A
// socket file that nobody listens on any more is replaced; a live one, or
// anything that is not a socket, is left alone and the call fails. Nullopt
// with `*error` describing the failure.
std::optional<ServiceListener> ListenOnService(std::string_view name, std::string* error);

// Removes the listener's socket file if it is still the one it created.
void RemoveServiceSocketFile(const ServiceListener& listener);

// The listening socket that a launcher passed to this process for `name`
// (LISTEN_PID is this process, LISTEN_FDS counts descriptors from 3, and
// LISTEN_FDNAMES, when present, names them; without names a single
// descriptor is taken for any service). Each descriptor is handed out once;
// it must be a listening AF_UNIX SOCK_SEQPACKET socket. Invalid when there
// is none.
ScopedFd TakeActivationSocket(std::string_view name);

}  // namespace kx
