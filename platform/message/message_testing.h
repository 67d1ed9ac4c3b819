// Test-only support for the message service: counting this process's
// descriptors and shared-memory mappings (to prove that hostile input leaks
// neither), and building and sending raw datagrams byte by byte.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/message/message_codec.h"
#include "platform/message/message_fd.h"

namespace kx::test {

inline size_t OpenDescriptorCount() {
  size_t n = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* e = readdir(dir))
      if (e->d_name[0] != '.') ++n;
    closedir(dir);
  }
  return n;
}

// Mappings of shared-memory files (memfds) in this process. Only these can
// leak through the message layer; anonymous mappings come and go with the
// allocator, thread stacks and, under the sanitizers, shadow memory and
// their own background threads, so counting all of them is never exact.
inline size_t SharedMemoryMappingCount() {
  std::ifstream maps("/proc/self/maps");
  size_t n = 0;
  for (std::string line; std::getline(maps, line);) n += line.find(" /memfd:") != std::string::npos;
  return n;
}

// A memfd holding `contents`, `size` bytes long (at least the contents),
// sealed against shrinking only when asked.
inline ScopedFd MakeMemfd(std::span<const uint8_t> contents, size_t size, bool sealShrink) {
  ScopedFd fd(memfd_create("kx-test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd || ftruncate(fd.get(), static_cast<off_t>(std::max(size, contents.size()))) != 0)
    return ScopedFd();
  if (!contents.empty() && pwrite(fd.get(), contents.data(), contents.size(), 0) !=
                               static_cast<ssize_t>(contents.size()))
    return ScopedFd();
  if (sealShrink && fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0)
    return ScopedFd();
  return fd;
}

// Raw datagram bytes, written in the wire format's own terms.
class RawDatagram {
 public:
  RawDatagram& byte(uint8_t b) {
    bytes_.push_back(b);
    return *this;
  }
  RawDatagram& bytes(std::initializer_list<uint8_t> bs) {
    bytes_.insert(bytes_.end(), bs);
    return *this;
  }
  RawDatagram& varint(uint64_t v) {
    while (v >= 0x80) {
      bytes_.push_back(static_cast<uint8_t>(v) | 0x80);
      v >>= 7;
    }
    bytes_.push_back(static_cast<uint8_t>(v));
    return *this;
  }
  RawDatagram& text(std::string_view s) {
    varint(s.size());
    bytes_.insert(bytes_.end(), s.begin(), s.end());
    return *this;
  }
  // version 1, no flags, `descriptors` declared, then a dictionary of
  // `entries` entries whose contents the caller appends.
  RawDatagram& header(uint32_t descriptors, uint8_t flags = 0) {
    return byte(1).byte(flags).varint(descriptors);
  }
  RawDatagram& dictionary(uint64_t entries) { return byte(0x0D).varint(entries); }
  const std::vector<uint8_t>& data() const { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

// Sends one raw datagram with descriptors, as a broken or hostile peer would.
inline void SendRaw(int socket, std::span<const uint8_t> bytes, std::span<const int> fds = {}) {
  iovec iov{const_cast<uint8_t*>(bytes.data()), bytes.size()};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 8)] = {};
  ASSERT_LE(fds.size(), 8u);
  if (!fds.empty()) {
    msg.msg_control = control;
    msg.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
    std::memcpy(CMSG_DATA(c), fds.data(), fds.size() * sizeof(int));
  }
  ASSERT_EQ(sendmsg(socket, &msg, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// Header and inline body of an encoded message as one datagram.
inline std::vector<uint8_t> Flatten(const OutgoingMessage& out) {
  std::vector<uint8_t> bytes(out.header().begin(), out.header().end());
  bytes.insert(bytes.end(), out.body().begin(), out.body().end());
  return bytes;
}

}  // namespace kx::test
