#include "platform/message/peer_identity.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace kx {
namespace {

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.back() == '\0' || s.back() == '\n' || s.back() == ' '))
    s.remove_suffix(1);
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  return s;
}

std::string_view LastComponent(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::optional<std::string> ReadSecurityLabel(int fd) {
  std::string label(256, '\0');
  for (;;) {
    socklen_t length = static_cast<socklen_t>(label.size());
    if (getsockopt(fd, SOL_SOCKET, SO_PEERSEC, label.data(), &length) == 0) {
      label.resize(length);
      std::string_view trimmed = Trim(label);
      if (trimmed.empty()) return std::nullopt;
      return std::string(trimmed);
    }
    // ERANGE reports the size needed in `length`.
    if (errno != ERANGE || length <= label.size() || length > 4096) return std::nullopt;
    label.assign(length, '\0');
  }
}

std::string ExecutableName(pid_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/exe", static_cast<int>(pid));
  char target[4096];
  ssize_t n = readlink(path, target, sizeof target);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof target) return {};
  std::string_view link(target, static_cast<size_t>(n));
  // A binary replaced while running reads as "/path (deleted)".
  constexpr std::string_view kDeleted = " (deleted)";
  if (link.ends_with(kDeleted)) link.remove_suffix(kDeleted.size());
  return std::string(LastComponent(link));
}

}  // namespace

std::optional<PeerIdentity> ReadPeerIdentity(int socketFd) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(socketFd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
      length != sizeof credentials || credentials.pid <= 0)
    return std::nullopt;
  PeerIdentity identity;
  identity.pid = credentials.pid;
  identity.uid = credentials.uid;
  identity.gid = credentials.gid;
  identity.securityLabel = ReadSecurityLabel(socketFd);
  identity.executableName = ExecutableName(credentials.pid);
  return identity;
}

std::optional<std::string> BundleIdentifierFromSecurityLabel(std::string_view label) {
  label = Trim(label);
  // AppArmor appends the enforcement mode: "com.orvex.app (enforce)".
  if (label.ends_with(')')) {
    size_t open = label.rfind(" (");
    if (open != std::string_view::npos) label = Trim(label.substr(0, open));
  }
  if (label.empty()) return std::nullopt;
  if (label.find(':') != std::string_view::npos && label.front() != '/') {
    // SELinux "user:role:type[:level]": the type names the domain.
    size_t first = label.find(':');
    size_t second = label.find(':', first + 1);
    if (second == std::string_view::npos) return std::nullopt;
    size_t third = label.find(':', second + 1);
    label = label.substr(second + 1, third == std::string_view::npos ? third : third - second - 1);
  } else if (label.front() == '/') {
    label = LastComponent(label);
  }
  if (label.empty() || label == "unconfined" || label == "unconfined_t" || label == "kernel")
    return std::nullopt;
  return std::string(label);
}

std::optional<std::string> PeerBundleIdentifier(const PeerIdentity& identity) {
  if (identity.securityLabel) {
    if (auto fromLabel = BundleIdentifierFromSecurityLabel(*identity.securityLabel))
      return fromLabel;
  }
  if (identity.executableName.empty()) return std::nullopt;
  return identity.executableName;
}

}  // namespace kx
