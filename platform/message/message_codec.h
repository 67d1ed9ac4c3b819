// The wire form of message-service dictionaries: one datagram carries one
// dictionary, its descriptors travel in SCM_RIGHTS.
//
//   datagram := version flags [serial] [replyTo] descriptorCount [bodyLength] [body]
//   version  := 0x01
//   flags    := bit 0: the sender waits for a reply; `serial` (non-zero) follows
//               bit 1: the datagram is a reply; `replyTo` (non-zero) follows
//               bit 2: the body is out of line; `bodyLength` follows and the
//                      datagram ends there
//   body     := one value of type dictionary, ending exactly where the
//               datagram (or the out-of-line body) ends
//   value    := type byte, then
//     0x00 null            0x01 false          0x02 true
//     0x03 int64: zigzag varint                0x04 uint64: varint
//     0x05 double: 8 bytes little-endian       0x06 date: 8 bytes little-endian
//     0x07 data: varint n, n bytes             0x08 string: varint n, n bytes UTF-8
//     0x09 uuid: 16 bytes                      0x0A fd: varint descriptor index
//     0x0B shared memory: varint descriptor index, varint length
//     0x0C array: varint count, values
//     0x0D dictionary: varint count, (varint n, n bytes UTF-8 key, value)...
//   varint   := LEB128, at most 10 bytes, no bits beyond 64
//
// Invariants of a well-formed datagram: exactly `descriptorCount`
// descriptors arrive for the body, plus one for an out-of-line body (a
// memfd sealed against shrinking, holding `bodyLength` bytes), in that
// order; every body descriptor is referenced exactly once; keys within a
// dictionary are unique; nesting is at most kMessageMaxDepth deep. Anything
// else is malformed: the decoder rejects the whole datagram and closes every
// descriptor that came with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/message/message_fd.h"
#include "platform/message/message_object.h"

namespace kx {

// Encoded datagrams larger than this travel out of line in a sealed memfd.
inline constexpr size_t kMessageInlineLimit = 64 * 1024;
// The kernel passes at most 253 descriptors per datagram (SCM_MAX_FD); one
// stays free for an out-of-line body.
inline constexpr size_t kMessageMaxDescriptors = 252;
inline constexpr size_t kMessageMaxDepth = 32;
inline constexpr size_t kMessageMaxHeader = 2 + 4 * 10;
inline constexpr uint64_t kMessageMaxBody = uint64_t{256} << 20;

// What decoding one body may allocate on the heap, private copy of the body
// included: a small multiple of the body's size, so that a hostile sender
// cannot make a receiver hold many times what it sent (an array of N one-byte
// nulls would otherwise cost N objects of 40 bytes). Lists of small
// dictionaries of short strings and numbers, the densest ordinary traffic,
// take about nine times their size. Small bodies get a fixed floor, since
// even an empty dictionary costs a few hundred bytes.
inline constexpr size_t kMessageDecodeBudgetFactor = 16;
inline constexpr size_t kMessageDecodeBudgetFloor = 64 * 1024;
inline constexpr size_t MessageDecodeBudget(size_t bodyLength) {
  return bodyLength > kMessageDecodeBudgetFloor / kMessageDecodeBudgetFactor
             ? bodyLength * kMessageDecodeBudgetFactor
             : kMessageDecodeBudgetFloor;
}

struct MessageHeader {
  enum Flags : uint8_t { kWantsReply = 1, kIsReply = 2, kOutOfLine = 4 };
  uint8_t flags = 0;
  uint64_t serial = 0;
  uint64_t replyTo = 0;
  uint32_t descriptorCount = 0;
  uint64_t bodyLength = 0;
};

// A growable byte buffer whose first bytes live inside the object, so small
// messages encode without touching the heap.
class MessageBuffer {
 public:
  MessageBuffer() = default;
  MessageBuffer(const MessageBuffer&) = delete;
  MessageBuffer& operator=(const MessageBuffer&) = delete;

  const uint8_t* data() const { return heap_ ? heap_.get() : inline_; }
  size_t size() const { return size_; }
  void push(uint8_t byte) { *grow(1) = byte; }
  void append(const void* bytes, size_t n);
  void varint(uint64_t value);
  // Room for `n` more bytes, counted as written.
  uint8_t* grow(size_t n);

 private:
  uint8_t inline_[512];
  std::unique_ptr<uint8_t[]> heap_;
  size_t size_ = 0;
  size_t capacity_ = sizeof inline_;
};

// One datagram on its way out. Descriptors are borrowed from the encoded
// dictionary, which must outlive the send, except the out-of-line memfd,
// which the datagram owns.
class OutgoingMessage {
 public:
  // Encodes `dictionary`; a body too large for one datagram moves into a
  // sealed memfd. False, with the reason logged at level 3, when the
  // dictionary holds a value that cannot travel (errors, connections,
  // received shared memory, invalid UTF-8), has too many descriptors, nests
  // too deep, or is too large.
  bool encode(const MessageDictionary& dictionary);
  // Writes the header; serial numbers are known only at send time.
  void setHeader(uint8_t flags, uint64_t serial, uint64_t replyTo);

  std::span<const uint8_t> header() const { return {header_, headerLength_}; }
  // Empty when the body travels out of line.
  std::span<const uint8_t> body() const;
  // The body's descriptors, then the out-of-line memfd.
  std::span<const int> descriptors() const { return descriptors_; }
  // Bytes the datagram holds while it waits to be sent: header, inline body
  // and the out-of-line body's memory.
  uint64_t heldBytes() const { return headerLength_ + body().size() + outOfLineLength_; }

 private:
  uint8_t header_[kMessageMaxHeader];
  size_t headerLength_ = 0;
  MessageBuffer body_;
  std::vector<int> descriptors_;
  uint32_t bodyDescriptors_ = 0;
  ScopedFd outOfLine_;
  uint64_t outOfLineLength_ = 0;
};

struct ReceivedMessage {
  MessageHeader header;
  std::shared_ptr<MessageDictionary> body;
};

// Decodes one received datagram and the descriptors that came with it. Owns
// `descriptors` from the call on: each is adopted by a value of the result
// or closed before returning. Nullopt for a malformed datagram, with
// `*reason` (when given) saying why; a body whose values would need more
// than MessageDecodeBudget() of heap, or that meets an allocation failure,
// counts as malformed. Never reads outside `datagram` or the mapped
// out-of-line body; the result's strings and data do not alias `datagram`.
std::optional<ReceivedMessage> DecodeMessage(std::span<const uint8_t> datagram,
                                             std::span<const int> descriptors,
                                             const char** reason = nullptr);

// Strict UTF-8: no overlong forms, surrogates or code points past U+10FFFF.
bool IsValidUtf8(const uint8_t* bytes, size_t n);

}  // namespace kx
