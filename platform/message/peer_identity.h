// Who is on the other end of a local socket, as the kernel tells it.
//
// The identity never comes from what a peer says about itself: credentials
// are the kernel's (SO_PEERCRED: the peer's pid, uid and gid when it called
// connect() or listen()), the security label is the kernel's (SO_PEERSEC,
// present only when a security module labels processes), and the executable
// is read from /proc/<pid>/exe at the time the identity is read.
//
// A peer's bundle identifier is derived from its security label when it has
// a meaningful one, otherwise from its executable's file name:
// - AppArmor labels "profile (mode)" give the profile name; a profile named
//   by path ("/usr/bin/app") gives the path's last component.
// - SELinux contexts "user:role:type[:level]" give the type.
// - "unconfined", "kernel" and empty labels carry no identity and fall back
//   to the executable.
// On the connecting side SO_PEERCRED names the process that called listen():
// under a launcher or systemd socket unit that is the launcher, not the
// daemon.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace kx {

struct PeerIdentity {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  // Absent when no security module labels the peer.
  std::optional<std::string> securityLabel;
  // File name of /proc/<pid>/exe; empty when it could not be read (another
  // user's process, or one that has exited).
  std::string executableName;
};

// Nullopt when `socketFd` is not a connected local socket.
std::optional<PeerIdentity> ReadPeerIdentity(int socketFd);

// The identifier a label stands for, or nullopt for labels that carry none.
std::optional<std::string> BundleIdentifierFromSecurityLabel(std::string_view label);

// Label first, then executable; nullopt when neither is known.
std::optional<std::string> PeerBundleIdentifier(const PeerIdentity& identity);

}  // namespace kx
