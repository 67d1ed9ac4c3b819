#include "kx/WireWriter.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "kx/WireCodable.h"

WireWriter::~WireWriter() { std::free(buffer_); }

WireWriter::WireWriter(WireWriter&& other) noexcept
    : buffer_(std::exchange(other.buffer_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

WireWriter& WireWriter::operator=(WireWriter&& other) noexcept {
  if (this != &other) {
    std::free(buffer_);
    buffer_ = std::exchange(other.buffer_, nullptr);
    size_ = std::exchange(other.size_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
  }
  return *this;
}

void WireWriter::grow(size_t n) {
  size_t wanted = size_ + n;
  if (wanted < n) throw std::bad_alloc();  // size overflow
  size_t capacity = capacity_ ? capacity_ : 256;
  while (capacity < wanted) {
    if (capacity > SIZE_MAX / 2) {
      capacity = wanted;
      break;
    }
    capacity *= 2;
  }
  void* p = std::realloc(buffer_, capacity);
  if (!p) throw std::bad_alloc();
  buffer_ = static_cast<uint8_t*>(p);
  capacity_ = capacity;
}

void WireWriter::endMessage(WireWriterMessage message) {
  const size_t length = size_ - message.bodyStart;
  const size_t lengthBytes = VarintSize(length);
  const size_t lengthStart = message.bodyStart - kReservedLengthBytes;
  if (lengthBytes != kReservedLengthBytes) {
    // The body was written after a gap of the reserved size; fit the gap to
    // the length.
    if (lengthBytes > kReservedLengthBytes) ensure(lengthBytes - kReservedLengthBytes);
    std::memmove(buffer_ + lengthStart + lengthBytes, buffer_ + message.bodyStart, length);
    size_ = lengthStart + lengthBytes + length;
  }
  StoreVarint(buffer_ + lengthStart, length);
}

void WireWriter::writeMessageField(uint32_t field, const WireCodable& message) {
  WireWriterMessage m = beginMessage(field);
  message.writeTo(*this);
  endMessage(m);
}
