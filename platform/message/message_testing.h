// Test-only support for the message service: counting this process's
// descriptors and mappings (to prove that hostile input leaks neither), and
// building raw datagrams byte by byte.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
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

inline size_t MappingCount() {
  std::ifstream maps("/proc/self/maps");
  size_t n = 0;
  for (std::string line; std::getline(maps, line);) ++n;
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

// Header and inline body of an encoded message as one datagram.
inline std::vector<uint8_t> Flatten(const OutgoingMessage& out) {
  std::vector<uint8_t> bytes(out.header().begin(), out.header().end());
  bytes.insert(bytes.end(), out.body().begin(), out.body().end());
  return bytes;
}

}  // namespace kx::test
