#include "platform/message/message_codec.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>

#include "kx/log.h"
#include "platform/message/shared_memory.h"

static_assert(std::endian::native == std::endian::little,
              "doubles travel in host order, which the format fixes as little-endian");

namespace kx {
namespace {

constexpr uint8_t kVersion = 1;
constexpr uint8_t kKnownFlags =
    MessageHeader::kWantsReply | MessageHeader::kIsReply | MessageHeader::kOutOfLine;

enum WireType : uint8_t {
  kNull = 0x00,
  kFalse = 0x01,
  kTrue = 0x02,
  kInt64 = 0x03,
  kUInt64 = 0x04,
  kDouble = 0x05,
  kDate = 0x06,
  kData = 0x07,
  kString = 0x08,
  kUuid = 0x09,
  kFd = 0x0A,
  kShmem = 0x0B,
  kArray = 0x0C,
  kDictionary = 0x0D,
};

size_t PutVarint(uint8_t* out, uint64_t value) {
  size_t n = 0;
  while (value >= 0x80) {
    out[n++] = static_cast<uint8_t>(value) | 0x80;
    value >>= 7;
  }
  out[n++] = static_cast<uint8_t>(value);
  return n;
}

// Dictionaries with more keys than this are checked for duplicates by
// sorting; smaller ones pairwise.
constexpr size_t kPairwiseKeyCheck = 16;

bool HasDuplicateKeys(std::span<const MessageDictionary::Entry> entries) {
  if (entries.size() <= kPairwiseKeyCheck) {
    for (size_t i = 1; i < entries.size(); ++i)
      for (size_t j = 0; j < i; ++j)
        if (entries[i].key == entries[j].key) return true;
    return false;
  }
  std::vector<std::string_view> keys;
  keys.reserve(entries.size());
  for (const auto& e : entries) keys.push_back(e.key);
  std::sort(keys.begin(), keys.end());
  return std::adjacent_find(keys.begin(), keys.end()) != keys.end();
}

class Encoder {
 public:
  Encoder(MessageBuffer& out, std::vector<int>& descriptors)
      : out_(out), descriptors_(descriptors) {}

  bool dictionary(const MessageDictionary& d, size_t depth) {
    if (depth > kMessageMaxDepth) return fail("nesting too deep");
    out_.push(kDictionary);
    out_.varint(d.size());
    for (const auto& entry : d.entries()) {
      if (!utf8(entry.key)) return false;
      out_.varint(entry.key.size());
      out_.append(entry.key.data(), entry.key.size());
      if (!value(entry.value, depth + 1)) return false;
    }
    return true;
  }

  const char* reason() const { return reason_; }

 private:
  bool fail(const char* reason) {
    reason_ = reason;
    return false;
  }

  bool utf8(std::string_view s) {
    return IsValidUtf8(reinterpret_cast<const uint8_t*>(s.data()), s.size()) ||
           fail("string is not UTF-8");
  }

  bool descriptor(int fd) {
    if (fd < 0) return fail("value without a descriptor");
    if (descriptors_.size() >= kMessageMaxDescriptors) return fail("too many descriptors");
    out_.varint(descriptors_.size());
    descriptors_.push_back(fd);
    return true;
  }

  void fixed64(double d) { std::memcpy(out_.grow(8), &d, 8); }

  bool value(const MessageObject& v, size_t depth) {
    switch (v.type()) {
      case MessageType::Null:
        out_.push(kNull);
        return true;
      case MessageType::Bool:
        out_.push(*v.boolValue() ? kTrue : kFalse);
        return true;
      case MessageType::Int64: {
        const int64_t i = *v.int64Value();
        out_.push(kInt64);
        out_.varint((static_cast<uint64_t>(i) << 1) ^ static_cast<uint64_t>(i >> 63));
        return true;
      }
      case MessageType::UInt64:
        out_.push(kUInt64);
        out_.varint(*v.uint64Value());
        return true;
      case MessageType::Double:
        out_.push(kDouble);
        fixed64(*v.doubleValue());
        return true;
      case MessageType::Date:
        out_.push(kDate);
        fixed64(v.dateValue()->secondsSinceReferenceDate);
        return true;
      case MessageType::Data: {
        auto bytes = *v.dataValue();
        out_.push(kData);
        out_.varint(bytes.size());
        out_.append(bytes.data(), bytes.size());
        return true;
      }
      case MessageType::String: {
        std::string_view s = *v.stringValue();
        if (!utf8(s)) return false;
        out_.push(kString);
        out_.varint(s.size());
        out_.append(s.data(), s.size());
        return true;
      }
      case MessageType::Uuid:
        out_.push(kUuid);
        out_.append(v.uuidValue()->data(), 16);
        return true;
      case MessageType::FileDescriptor:
        out_.push(kFd);
        return descriptor(v.fileDescriptor());
      case MessageType::SharedMemory: {
        const MessageSharedMemory* memory = v.sharedMemory();
        if (memory->descriptor() < 0) return fail("received shared memory cannot be sent on");
        out_.push(kShmem);
        if (!descriptor(memory->descriptor())) return false;
        out_.varint(memory->length());
        return true;
      }
      case MessageType::Array: {
        if (depth > kMessageMaxDepth) return fail("nesting too deep");
        auto items = v.array()->items();
        out_.push(kArray);
        out_.varint(items.size());
        for (const MessageObject& item : items)
          if (!value(item, depth + 1)) return false;
        return true;
      }
      case MessageType::Dictionary:
        return dictionary(*v.dictionary(), depth);
      case MessageType::Error:
      case MessageType::Connection:
        return fail("value type cannot be sent");
    }
    return fail("unknown value type");
  }

  MessageBuffer& out_;
  std::vector<int>& descriptors_;
  const char* reason_ = nullptr;
};

// The descriptors of one received datagram. Each one is either taken by a
// value or closed when the table goes away.
class DescriptorTable {
 public:
  explicit DescriptorTable(std::span<const int> fds) : fds_(fds.begin(), fds.end()) {}
  ~DescriptorTable() {
    for (int fd : fds_)
      if (fd >= 0) ::close(fd);
  }
  DescriptorTable(const DescriptorTable&) = delete;
  DescriptorTable& operator=(const DescriptorTable&) = delete;

  size_t size() const { return fds_.size(); }
  // Invalid for an index out of range or already taken.
  ScopedFd take(uint64_t index) {
    if (index >= fds_.size()) return ScopedFd();
    return ScopedFd(std::exchange(fds_[index], -1));
  }
  // True when the first `n` descriptors have all been taken.
  bool allTaken(size_t n) const {
    return std::all_of(fds_.begin(), fds_.begin() + static_cast<ptrdiff_t>(n),
                       [](int fd) { return fd < 0; });
  }

 private:
  std::vector<int> fds_;
};

class Cursor {
 public:
  Cursor(const uint8_t* p, size_t n) : p_(p), end_(p + n) {}
  size_t remaining() const { return static_cast<size_t>(end_ - p_); }
  bool atEnd() const { return p_ == end_; }
  const uint8_t* position() const { return p_; }

  bool byte(uint8_t& b) {
    if (p_ == end_) return false;
    b = *p_++;
    return true;
  }
  bool varint(uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      uint8_t b;
      if (!byte(b)) return false;
      // The tenth byte may carry only the top bit of the value.
      if (shift == 63 && b > 1) return false;
      value |= static_cast<uint64_t>(b & 0x7F) << shift;
      if (!(b & 0x80)) return true;
    }
    return false;
  }
  // A varint length that also fits in what is left.
  bool length(size_t& n) {
    uint64_t v;
    if (!varint(v) || v > remaining()) return false;
    n = static_cast<size_t>(v);
    return true;
  }
  bool bytes(size_t n, const uint8_t*& out) {
    if (n > remaining()) return false;
    out = p_;
    p_ += n;
    return true;
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

// An upper bound on what the allocator is asked for beyond the object itself
// by one make_shared or make_unique (control block, padding).
constexpr size_t kAllocationOverhead = 32;

// What decoding may still allocate. Every heap allocation the decoder makes
// is charged here before it is made, so a body can never cost more than its
// budget, however its counts are chosen.
class DecodeBudget {
 public:
  explicit DecodeBudget(size_t bytes) : left_(bytes) {}
  // False, charging nothing, when `count` items of `size` bytes do not fit.
  bool charge(size_t count, size_t size) {
    if (size && count > left_ / size) return false;
    left_ -= count * size;
    return true;
  }
  template <class T>
  bool chargeObject() {
    return charge(1, sizeof(T) + kAllocationOverhead);
  }

 private:
  size_t left_;
};

}  // namespace

// Builds values whose strings, data and keys are views into `storage`, the
// private copy of the body.
class MessageDecoder {
 public:
  MessageDecoder(std::shared_ptr<const void> storage, DescriptorTable& fds, DecodeBudget& budget)
      : storage_(std::move(storage)), fds_(fds), budget_(budget) {}

  bool dictionary(Cursor& in, size_t depth, std::shared_ptr<MessageDictionary>& out) {
    if (depth > kMessageMaxDepth) return fail("nesting too deep");
    size_t count;
    // Every entry takes at least two bytes (key length and value type).
    if (!in.length(count) || count > in.remaining() / 2) return fail("bad dictionary count");
    // The entries, and the key list that checking large dictionaries for
    // duplicates sorts.
    if (!budget_.chargeObject<MessageDictionary>() ||
        !budget_.charge(count, sizeof(MessageDictionary::Entry)) ||
        (count > kPairwiseKeyCheck && !budget_.charge(count, sizeof(std::string_view))))
      return overBudget();
    auto d = std::make_shared<MessageDictionary>();
    d->adoptStorage(storage_);
    d->entries_.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      size_t keyLength;
      const uint8_t* key;
      if (!in.length(keyLength) || !in.bytes(keyLength, key)) return fail("truncated key");
      if (!IsValidUtf8(key, keyLength)) return fail("key is not UTF-8");
      MessageObject v;
      if (!value(in, depth + 1, v)) return false;
      d->appendUnowned(std::string_view(reinterpret_cast<const char*>(key), keyLength),
                       std::move(v));
    }
    if (HasDuplicateKeys(d->entries())) return fail("duplicate key");
    out = std::move(d);
    return true;
  }

  const char* reason() const { return reason_; }

 private:
  bool fail(const char* reason) {
    reason_ = reason;
    return false;
  }
  bool overBudget() { return fail("decoding needs too much memory for the body's size"); }

  bool fixed64(Cursor& in, double& d) {
    const uint8_t* p;
    if (!in.bytes(8, p)) return fail("truncated number");
    std::memcpy(&d, p, 8);
    return true;
  }

  bool value(Cursor& in, size_t depth, MessageObject& out) {
    uint8_t type;
    if (!in.byte(type)) return fail("truncated value");
    switch (type) {
      case kNull:
        out = MessageObject();
        return true;
      case kFalse:
      case kTrue:
        out = MessageObject::Bool(type == kTrue);
        return true;
      case kInt64: {
        uint64_t z;
        if (!in.varint(z)) return fail("bad varint");
        out = MessageObject::Int64(static_cast<int64_t>((z >> 1) ^ (~(z & 1) + 1)));
        return true;
      }
      case kUInt64: {
        uint64_t u;
        if (!in.varint(u)) return fail("bad varint");
        out = MessageObject::UInt64(u);
        return true;
      }
      case kDouble:
      case kDate: {
        double d;
        if (!fixed64(in, d)) return false;
        out = type == kDouble ? MessageObject::Double(d) : MessageObject::Date(kx::Date{d});
        return true;
      }
      case kData:
      case kString: {
        size_t n;
        const uint8_t* p;
        if (!in.length(n) || !in.bytes(n, p)) return fail("truncated bytes");
        if (type == kData) {
          out = MessageObject::DataView({p, n}, storage_);
          return true;
        }
        if (!IsValidUtf8(p, n)) return fail("string is not UTF-8");
        out = MessageObject::StringView({reinterpret_cast<const char*>(p), n}, storage_);
        return true;
      }
      case kUuid: {
        const uint8_t* p;
        if (!in.bytes(16, p)) return fail("truncated uuid");
        MessageUuid u;
        std::memcpy(u.data(), p, 16);
        out = MessageObject::Uuid(u);
        return true;
      }
      case kFd: {
        uint64_t index;
        if (!in.varint(index)) return fail("bad varint");
        ScopedFd fd = fds_.take(index);
        if (!fd) return fail("descriptor index out of range or reused");
        if (!budget_.chargeObject<ScopedFd>()) return overBudget();
        out = MessageObject::FileDescriptor(std::move(fd));
        return true;
      }
      case kShmem: {
        uint64_t index, length;
        if (!in.varint(index) || !in.varint(length)) return fail("bad varint");
        ScopedFd fd = fds_.take(index);
        if (!fd) return fail("descriptor index out of range or reused");
        if (length > std::numeric_limits<size_t>::max()) return fail("shared memory too long");
        // The mapping is the sender's memory; only its bookkeeping is ours.
        if (!budget_.chargeObject<MessageSharedMemory>() ||
            !budget_.charge(1, kSharedMemoryRegionCost))
          return overBudget();
        std::unique_ptr<SharedMemoryRegion> region =
            MapReceivedRegion(fd.release(), static_cast<size_t>(length));
        if (!region) return fail("shared memory rejected");
        out = MessageObject::SharedMemory(std::make_shared<MessageSharedMemory>(std::move(region)));
        return true;
      }
      case kArray: {
        if (depth > kMessageMaxDepth) return fail("nesting too deep");
        size_t count;
        // A count never exceeds the bytes left: every item takes at least
        // its type byte.
        if (!in.length(count)) return fail("bad array count");
        if (!budget_.chargeObject<MessageArray>() || !budget_.charge(count, sizeof(MessageObject)))
          return overBudget();
        auto a = MessageArray::Create();
        a->reserve(count);
        for (size_t i = 0; i < count; ++i) {
          MessageObject item;
          if (!value(in, depth + 1, item)) return false;
          a->append(std::move(item));
        }
        out = MessageObject::Array(std::move(a));
        return true;
      }
      case kDictionary: {
        std::shared_ptr<MessageDictionary> d;
        if (!dictionary(in, depth, d)) return false;
        out = MessageObject::Dictionary(std::move(d));
        return true;
      }
      default:
        return fail("unknown value type");
    }
  }

  // A received region: the mapping's object, its deleter's bookkeeping.
  static constexpr size_t kSharedMemoryRegionCost = 64 + kAllocationOverhead;

  std::shared_ptr<const void> storage_;
  DescriptorTable& fds_;
  DecodeBudget& budget_;
  const char* reason_ = nullptr;
};

// MessageBuffer

uint8_t* MessageBuffer::grow(size_t n) {
  if (n > capacity_ - size_) {
    size_t capacity = std::max(capacity_ * 2, size_ + n);
    auto bigger = std::make_unique_for_overwrite<uint8_t[]>(capacity);
    std::memcpy(bigger.get(), data(), size_);
    heap_ = std::move(bigger);
    capacity_ = capacity;
  }
  uint8_t* at = (heap_ ? heap_.get() : inline_) + size_;
  size_ += n;
  return at;
}

void MessageBuffer::append(const void* bytes, size_t n) {
  if (n) std::memcpy(grow(n), bytes, n);
}

void MessageBuffer::varint(uint64_t value) {
  uint8_t tmp[10];
  append(tmp, PutVarint(tmp, value));
}

// OutgoingMessage

bool OutgoingMessage::encode(const MessageDictionary& dictionary) {
  Encoder encoder(body_, descriptors_);
  if (!encoder.dictionary(dictionary, 1)) {
    KXLOG(3, "Cannot send message: %s", encoder.reason());
    return false;
  }
  bodyDescriptors_ = static_cast<uint32_t>(descriptors_.size());
  if (kMessageMaxHeader + body_.size() <= kMessageInlineLimit) return true;
  if (body_.size() > kMessageMaxBody) {
    KXLOG(3, "Cannot send message: %zu bytes is too large", body_.size());
    return false;
  }
  outOfLine_.reset(SharedMemoryAllocator::DuplicateSealedDescriptor(body_.data(), body_.size()));
  if (!outOfLine_) {
    KXLOG(3, "Cannot send message: no shared memory for %zu bytes", body_.size());
    return false;
  }
  outOfLineLength_ = body_.size();
  descriptors_.push_back(outOfLine_.get());
  return true;
}

void OutgoingMessage::setHeader(uint8_t flags, uint64_t serial, uint64_t replyTo) {
  flags &= MessageHeader::kWantsReply | MessageHeader::kIsReply;
  if (outOfLine_) flags |= MessageHeader::kOutOfLine;
  size_t n = 0;
  header_[n++] = kVersion;
  header_[n++] = flags;
  if (flags & MessageHeader::kWantsReply) n += PutVarint(header_ + n, serial);
  if (flags & MessageHeader::kIsReply) n += PutVarint(header_ + n, replyTo);
  n += PutVarint(header_ + n, bodyDescriptors_);
  if (flags & MessageHeader::kOutOfLine) n += PutVarint(header_ + n, outOfLineLength_);
  headerLength_ = n;
}

std::span<const uint8_t> OutgoingMessage::body() const {
  if (outOfLine_) return {};
  return {body_.data(), body_.size()};
}

// Decoding

namespace {

bool ParseHeader(Cursor& in, MessageHeader& h, const char** reason) {
  auto fail = [&](const char* why) {
    *reason = why;
    return false;
  };
  uint8_t version;
  if (!in.byte(version) || version != kVersion) return fail("unknown version");
  if (!in.byte(h.flags) || (h.flags & ~kKnownFlags)) return fail("unknown flags");
  if ((h.flags & MessageHeader::kWantsReply) && (!in.varint(h.serial) || h.serial == 0))
    return fail("bad serial");
  if ((h.flags & MessageHeader::kIsReply) && (!in.varint(h.replyTo) || h.replyTo == 0))
    return fail("bad reply serial");
  uint64_t count;
  if (!in.varint(count) || count > kMessageMaxDescriptors) return fail("bad descriptor count");
  h.descriptorCount = static_cast<uint32_t>(count);
  if (h.flags & MessageHeader::kOutOfLine) {
    if (!in.varint(h.bodyLength) || h.bodyLength == 0 || h.bodyLength > kMessageMaxBody)
      return fail("bad out-of-line length");
    if (!in.atEnd()) return fail("bytes after an out-of-line header");
  }
  return true;
}

}  // namespace

namespace {

// Decodes the body after the header: copies it, then builds its values.
// Allocation failures escape as std::bad_alloc.
bool DecodeBody(Cursor& in, const MessageHeader& h, DescriptorTable& fds,
                std::shared_ptr<MessageDictionary>& out, const char** reason) {
  const bool outOfLine = h.flags & MessageHeader::kOutOfLine;
  // The body is decoded from a private copy: values view it without copying
  // again, and nothing the sender does afterwards (it keeps its own mapping
  // of an out-of-line body) can change bytes that were already checked.
  std::unique_ptr<SharedMemoryRegion> region;
  const uint8_t* source = in.position();
  size_t bodyLength = in.remaining();
  if (outOfLine) {
    region =
        MapReceivedRegion(fds.take(h.descriptorCount).release(), static_cast<size_t>(h.bodyLength));
    if (!region) {
      *reason = "out-of-line body rejected";
      return false;
    }
    source = region->data();
    bodyLength = region->size();
  }
  DecodeBudget budget(MessageDecodeBudget(bodyLength));
  if (!budget.charge(1, bodyLength + kAllocationOverhead)) {
    *reason = "body too large";
    return false;
  }
  std::shared_ptr<uint8_t[]> body =
      std::make_shared_for_overwrite<uint8_t[]>(bodyLength ? bodyLength : 1);
  if (bodyLength) std::memcpy(body.get(), source, bodyLength);
  region.reset();

  Cursor bodyIn(body.get(), bodyLength);
  uint8_t type;
  if (!bodyIn.byte(type) || type != kDictionary) {
    *reason = "body is not a dictionary";
    return false;
  }
  MessageDecoder decoder(body, fds, budget);
  if (!decoder.dictionary(bodyIn, 1, out)) {
    *reason = decoder.reason();
    return false;
  }
  if (!bodyIn.atEnd()) {
    *reason = "bytes after the body";
    return false;
  }
  return true;
}

}  // namespace

std::optional<ReceivedMessage> DecodeMessage(std::span<const uint8_t> datagram,
                                             std::span<const int> descriptors,
                                             const char** reason) {
  const char* ignored;
  if (!reason) reason = &ignored;
  DescriptorTable fds(descriptors);
  Cursor in(datagram.data(), datagram.size());
  ReceivedMessage message;
  MessageHeader& h = message.header;
  if (!ParseHeader(in, h, reason)) return std::nullopt;
  const bool outOfLine = h.flags & MessageHeader::kOutOfLine;
  if (fds.size() != h.descriptorCount + (outOfLine ? 1u : 0u)) {
    *reason = fds.size() > h.descriptorCount ? "more descriptors than declared"
                                             : "fewer descriptors than declared";
    return std::nullopt;
  }
  // The budget keeps a hostile body from costing much, but the process may
  // be short of memory anyway; a reader thread must survive that.
  try {
    if (!DecodeBody(in, h, fds, message.body, reason)) return std::nullopt;
  } catch (const std::bad_alloc&) {
    *reason = "out of memory";
    return std::nullopt;
  }
  if (!fds.allTaken(h.descriptorCount)) {
    *reason = "descriptor declared but not used";
    return std::nullopt;
  }
  return message;
}

bool IsValidUtf8(const uint8_t* s, size_t n) {
  size_t i = 0;
  while (i < n) {
    // Runs of ASCII, the common case, eight bytes at a time.
    while (i + 8 <= n) {
      uint64_t word;
      std::memcpy(&word, s + i, 8);
      if (word & 0x8080808080808080ull) break;
      i += 8;
    }
    if (i >= n) break;
    const uint8_t c = s[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len;
    uint32_t cp;
    if ((c & 0xE0) == 0xC0) {
      len = 2;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (n - i < len) return false;
    for (size_t k = 1; k < len; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    static constexpr uint32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMinimum[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

}  // namespace kx
