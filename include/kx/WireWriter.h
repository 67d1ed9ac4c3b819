// WireWriter: appends Protocol Buffers wire-format bytes to a growable
// buffer.
//
// Invariants: size() <= capacity; the bytes [data(), data()+size()) are the
// encoding so far. Each write reserves its worst case once and then stores
// without further checks. Nested messages are written in place: the length is
// patched in after the body, so encoding a record tree allocates only when the
// buffer grows.
#pragma once

#include "kx/export.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "kx/WireReader.h"

class WireCodable;

// Where a nested message's body starts; see WireWriter::beginMessage.
struct WireWriterMessage {
  size_t bodyStart = 0;
};

class KX_EXPORT WireWriter {
 public:
  WireWriter() = default;
  explicit WireWriter(size_t initialCapacity) { reserve(initialCapacity); }
  ~WireWriter();
  WireWriter(WireWriter&& other) noexcept;
  WireWriter& operator=(WireWriter&& other) noexcept;
  WireWriter(const WireWriter&) = delete;
  WireWriter& operator=(const WireWriter&) = delete;

  const uint8_t* data() const { return buffer_; }
  size_t size() const { return size_; }
  std::span<const uint8_t> bytes() const { return {buffer_, size_}; }
  // A copy of the bytes written so far.
  std::vector<uint8_t> copyData() const { return {buffer_, buffer_ + size_}; }
  // Forgets the bytes and keeps the allocation for reuse.
  void clear() { size_ = 0; }
  void reserve(size_t capacity) {
    if (capacity > capacity_) grow(capacity - size_);
  }

  // Raw values.
  void writeVarint(uint64_t v) {
    ensure(WireReader::kMaxVarintBytes);
    size_ += StoreVarint(buffer_ + size_, v);
  }
  void writeKey(uint32_t field, WireType type) {
    writeVarint((uint64_t{field} << 3) | static_cast<uint64_t>(type));
  }
  // An int32 is sign-extended, so a negative value takes ten bytes.
  void writeInt32(int32_t v) { writeVarint(static_cast<uint64_t>(static_cast<int64_t>(v))); }
  void writeInt64(int64_t v) { writeVarint(static_cast<uint64_t>(v)); }
  void writeUInt32(uint32_t v) { writeVarint(v); }
  void writeUInt64(uint64_t v) { writeVarint(v); }
  void writeBool(bool v) {
    ensure(1);
    buffer_[size_++] = v ? 1 : 0;
  }
  void writeFixed32(uint32_t v) {
    ensure(4);
    for (int i = 0; i < 4; ++i) buffer_[size_++] = static_cast<uint8_t>(v >> (8 * i));
  }
  void writeFixed64(uint64_t v) {
    ensure(8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    std::memcpy(buffer_ + size_, &v, 8);
    size_ += 8;
  }
  void writeDouble(double d) {
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    writeFixed64(bits);
  }
  // Length-delimited bytes: the length as a varint, then the bytes.
  void writeData(const void* bytes, size_t length) {
    ensure(WireReader::kMaxVarintBytes + length);
    size_ += StoreVarint(buffer_ + size_, length);
    if (length) std::memcpy(buffer_ + size_, bytes, length);
    size_ += length;
  }
  void writeData(std::span<const uint8_t> d) { writeData(d.data(), d.size()); }
  void writeString(std::string_view s) { writeData(s.data(), s.size()); }

  // Whole fields: key and value.
  void writeVarintField(uint32_t field, uint64_t v) {
    writeKey(field, WireType::Varint);
    writeVarint(v);
  }
  void writeInt32Field(uint32_t field, int32_t v) {
    writeKey(field, WireType::Varint);
    writeInt32(v);
  }
  void writeBoolField(uint32_t field, bool v) {
    writeKey(field, WireType::Varint);
    writeBool(v);
  }
  void writeDoubleField(uint32_t field, double v) {
    writeKey(field, WireType::Fixed64);
    writeDouble(v);
  }
  void writeStringField(uint32_t field, std::string_view s) {
    writeKey(field, WireType::LengthDelimited);
    writeString(s);
  }
  void writeDataField(uint32_t field, std::span<const uint8_t> d) {
    writeKey(field, WireType::LengthDelimited);
    writeData(d);
  }
  // A nested message: its key, its length and the fields `message` writes.
  void writeMessageField(uint32_t field, const WireCodable& message);

  // Lower-level nested messages: beginMessage writes the key and leaves room
  // for a two-byte length; endMessage patches the real length in, sliding
  // the body only when its length needs another number of bytes. Two bytes
  // cover 128 bytes to 16 KiB, where every result record falls (even an
  // empty one carries its always-written fields), so records are encoded
  // without a move. Pairs nest like brackets.
  WireWriterMessage beginMessage(uint32_t field) {
    writeKey(field, WireType::LengthDelimited);
    ensure(kReservedLengthBytes);
    size_ += kReservedLengthBytes;
    return {size_};
  }
  void endMessage(WireWriterMessage message);

  // Encoded size of a varint.
  static size_t VarintSize(uint64_t v) {
    // One byte per started group of seven significant bits, at least one.
    return static_cast<size_t>((63 - __builtin_clzll(v | 1)) / 7 + 1);
  }

 private:
  // Stores `v` at `p` (ten bytes must be available); returns the byte count.
  static size_t StoreVarint(uint8_t* p, uint64_t v) {
    size_t n = 0;
    while (v >= 0x80) {
      p[n++] = static_cast<uint8_t>(v | 0x80);
      v >>= 7;
    }
    p[n++] = static_cast<uint8_t>(v);
    return n;
  }
  void ensure(size_t n) {
    if (capacity_ - size_ < n) [[unlikely]]
      grow(n);
  }
  // Makes room for at least `n` more bytes (geometric growth).
  void grow(size_t n);

  static constexpr size_t kReservedLengthBytes = 2;

  uint8_t* buffer_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};
