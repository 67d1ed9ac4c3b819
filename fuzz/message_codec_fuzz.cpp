// Fuzzes the message-service datagram decoder with its descriptors.
//
// Input: byte 0 chooses the descriptors that arrive with the datagram (bits
// 0-1: how many, 0 to 3; bit 2+i: descriptor i is sealed against
// shrinking); bytes 1-2 (little-endian) are the datagram's length; the
// datagram follows, and the rest is the contents of every descriptor (each a
// memfd, so shared-memory values and out-of-line bodies decode too).
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/message/message_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const uint8_t config = data[0];
  const size_t datagramLength = std::min<size_t>(data[1] | (data[2] << 8), size - 3);
  std::span<const uint8_t> datagram(data + 3, datagramLength);
  std::span<const uint8_t> contents(data + 3 + datagramLength, size - 3 - datagramLength);

  std::vector<int> fds;
  for (int i = 0; i < (config & 3); ++i) {
    int fd = memfd_create("kx-fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) break;
    if (!contents.empty() && write(fd, contents.data(), contents.size()) < 0) {
      close(fd);
      break;
    }
    if (config & (4 << i)) fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW);
    fds.push_back(fd);
  }
  // The decoder owns the descriptors from here on, on every path.
  std::optional<kx::ReceivedMessage> message = kx::DecodeMessage(datagram, fds);
  if (message) {
    // Touch what was decoded, as a consumer would.
    for (const auto& entry : message->body->entries()) {
      if (const kx::MessageSharedMemory* m = entry.value.sharedMemory())
        if (m->length()) (void)*(volatile const uint8_t*)&m->data()[m->length() - 1];
    }
  }
  return 0;
}
