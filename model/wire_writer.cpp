#include "model/wire_writer.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "model/wire_codable.h"

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
  size_t length = size_ - message.bodyStart;
  size_t lengthBytes = VarintSize(length);
  if (lengthBytes > 1) {
    // The body was written after a one-byte gap; widen the gap.
    ensure(lengthBytes - 1);
    std::memmove(buffer_ + message.bodyStart + lengthBytes - 1, buffer_ + message.bodyStart,
                 length);
    size_ += lengthBytes - 1;
  }
  StoreVarint(buffer_ + message.bodyStart - 1, length);
}

void WireWriter::writeMessageField(uint32_t field, const WireCodable& message) {
  WireWriterMessage m = beginMessage(field);
  message.writeTo(*this);
  endMessage(m);
}
