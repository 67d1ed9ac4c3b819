#include "platform/message/message_object.h"

#include <algorithm>
#include <cstring>

#include "kx/format.h"

namespace kx {
namespace {

std::shared_ptr<const void> CopyBytes(const void* bytes, size_t n) {
  auto copy = std::make_shared_for_overwrite<uint8_t[]>(n ? n : 1);
  if (n) std::memcpy(copy.get(), bytes, n);
  return copy;
}

bool BytesEqual(const void* a, size_t an, const void* b, size_t bn) {
  return an == bn && (an == 0 || std::memcmp(a, b, an) == 0);
}

}  // namespace

const char* MessageErrorDescription(MessageError error) {
  switch (error) {
    case MessageError::Interrupted:
      return "Connection interrupted";
    case MessageError::Invalid:
      return "Connection invalid";
  }
  return "Unknown error";
}

// MessageObject

MessageObject MessageObject::Bool(bool value) {
  MessageObject o;
  o.type_ = MessageType::Bool;
  o.v_.b = value;
  return o;
}

MessageObject MessageObject::Int64(int64_t value) {
  MessageObject o;
  o.type_ = MessageType::Int64;
  o.v_.i = value;
  return o;
}

MessageObject MessageObject::UInt64(uint64_t value) {
  MessageObject o;
  o.type_ = MessageType::UInt64;
  o.v_.u = value;
  return o;
}

MessageObject MessageObject::Double(double value) {
  MessageObject o;
  o.type_ = MessageType::Double;
  o.v_.d = value;
  return o;
}

MessageObject MessageObject::Date(kx::Date value) {
  MessageObject o;
  o.type_ = MessageType::Date;
  o.v_.d = value.secondsSinceReferenceDate;
  return o;
}

MessageObject MessageObject::Uuid(const MessageUuid& value) {
  MessageObject o;
  o.type_ = MessageType::Uuid;
  std::memcpy(o.v_.uuid, value.data(), value.size());
  return o;
}

MessageObject MessageObject::String(std::string_view value) {
  std::shared_ptr<const void> copy = CopyBytes(value.data(), value.size());
  const char* p = static_cast<const char*>(copy.get());
  return StringView(std::string_view(p, value.size()), std::move(copy));
}

MessageObject MessageObject::StringView(std::string_view value, std::shared_ptr<const void> owner) {
  MessageObject o;
  o.type_ = MessageType::String;
  o.v_.bytes = {value.data(), value.size()};
  o.ref_ = std::move(owner);
  return o;
}

MessageObject MessageObject::Data(std::span<const uint8_t> bytes) {
  std::shared_ptr<const void> copy = CopyBytes(bytes.data(), bytes.size());
  const auto* p = static_cast<const uint8_t*>(copy.get());
  return DataView({p, bytes.size()}, std::move(copy));
}

MessageObject MessageObject::Data(std::vector<uint8_t>&& bytes) {
  auto owner = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
  return DataView(*owner, owner);
}

MessageObject MessageObject::DataView(std::span<const uint8_t> bytes,
                                      std::shared_ptr<const void> owner) {
  MessageObject o;
  o.type_ = MessageType::Data;
  o.v_.bytes = {bytes.data(), bytes.size()};
  o.ref_ = std::move(owner);
  return o;
}

MessageObject MessageObject::FileDescriptor(ScopedFd fd) {
  MessageObject o;
  o.type_ = MessageType::FileDescriptor;
  o.ref_ = std::make_shared<const ScopedFd>(std::move(fd));
  return o;
}

std::optional<MessageObject> MessageObject::SharedMemory(const void* address, size_t length) {
  if (!address || length == 0) return std::nullopt;
  ScopedFd fd(SharedMemoryAllocator::DuplicateSealedDescriptor(address, length));
  if (!fd) return std::nullopt;
  return SharedMemory(std::make_shared<MessageSharedMemory>(std::move(fd), length));
}

MessageObject MessageObject::SharedMemory(std::shared_ptr<MessageSharedMemory> memory) {
  MessageObject o;
  if (!memory) return o;
  o.type_ = MessageType::SharedMemory;
  o.ref_ = std::move(memory);
  return o;
}

MessageObject MessageObject::Array(std::shared_ptr<MessageArray> array) {
  MessageObject o;
  if (!array) return o;
  o.type_ = MessageType::Array;
  o.ref_ = std::move(array);
  return o;
}

MessageObject MessageObject::Dictionary(std::shared_ptr<MessageDictionary> dictionary) {
  MessageObject o;
  if (!dictionary) return o;
  o.type_ = MessageType::Dictionary;
  o.ref_ = std::move(dictionary);
  return o;
}

MessageObject MessageObject::Error(MessageError error) {
  MessageObject o;
  o.type_ = MessageType::Error;
  o.v_.error = error;
  return o;
}

MessageObject MessageObject::Connection(std::shared_ptr<MessageConnection> connection) {
  MessageObject o;
  if (!connection) return o;
  o.type_ = MessageType::Connection;
  o.ref_ = std::move(connection);
  return o;
}

std::optional<bool> MessageObject::boolValue() const {
  if (type_ != MessageType::Bool) return std::nullopt;
  return v_.b;
}

std::optional<int64_t> MessageObject::int64Value() const {
  if (type_ != MessageType::Int64) return std::nullopt;
  return v_.i;
}

std::optional<uint64_t> MessageObject::uint64Value() const {
  if (type_ != MessageType::UInt64) return std::nullopt;
  return v_.u;
}

std::optional<double> MessageObject::doubleValue() const {
  if (type_ != MessageType::Double) return std::nullopt;
  return v_.d;
}

std::optional<kx::Date> MessageObject::dateValue() const {
  if (type_ != MessageType::Date) return std::nullopt;
  return kx::Date{v_.d};
}

std::optional<MessageUuid> MessageObject::uuidValue() const {
  if (type_ != MessageType::Uuid) return std::nullopt;
  MessageUuid u;
  std::memcpy(u.data(), v_.uuid, u.size());
  return u;
}

std::optional<std::string_view> MessageObject::stringValue() const {
  if (type_ != MessageType::String) return std::nullopt;
  return std::string_view(static_cast<const char*>(v_.bytes.p), v_.bytes.n);
}

std::optional<std::span<const uint8_t>> MessageObject::dataValue() const {
  if (type_ != MessageType::Data) return std::nullopt;
  return std::span<const uint8_t>(static_cast<const uint8_t*>(v_.bytes.p), v_.bytes.n);
}

std::optional<MessageError> MessageObject::errorValue() const {
  if (type_ != MessageType::Error) return std::nullopt;
  return v_.error;
}

int MessageObject::fileDescriptor() const {
  return type_ == MessageType::FileDescriptor ? refAs<ScopedFd>()->get() : -1;
}

MessageSharedMemory* MessageObject::sharedMemory() const {
  return type_ == MessageType::SharedMemory ? refAs<MessageSharedMemory>() : nullptr;
}

MessageArray* MessageObject::array() const {
  return type_ == MessageType::Array ? refAs<MessageArray>() : nullptr;
}

MessageDictionary* MessageObject::dictionary() const {
  return type_ == MessageType::Dictionary ? refAs<MessageDictionary>() : nullptr;
}

std::shared_ptr<MessageDictionary> MessageObject::dictionaryRef() const {
  if (type_ != MessageType::Dictionary) return nullptr;
  return std::shared_ptr<MessageDictionary>(ref_, refAs<MessageDictionary>());
}

std::shared_ptr<MessageConnection> MessageObject::connection() const {
  if (type_ != MessageType::Connection) return nullptr;
  return std::shared_ptr<MessageConnection>(ref_, refAs<MessageConnection>());
}

bool MessageObject::operator==(const MessageObject& other) const {
  if (type_ != other.type_) return false;
  switch (type_) {
    case MessageType::Null:
      return true;
    case MessageType::Bool:
      return v_.b == other.v_.b;
    case MessageType::Int64:
      return v_.i == other.v_.i;
    case MessageType::UInt64:
      return v_.u == other.v_.u;
    case MessageType::Double:
    case MessageType::Date:
      // Bitwise, so that a NaN that travelled equals itself.
      return std::memcmp(&v_.d, &other.v_.d, sizeof v_.d) == 0;
    case MessageType::Uuid:
      return std::memcmp(v_.uuid, other.v_.uuid, sizeof v_.uuid) == 0;
    case MessageType::String:
    case MessageType::Data:
      return BytesEqual(v_.bytes.p, v_.bytes.n, other.v_.bytes.p, other.v_.bytes.n);
    case MessageType::Error:
      return v_.error == other.v_.error;
    case MessageType::Array: {
      auto a = array()->items(), b = other.array()->items();
      return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }
    case MessageType::Dictionary: {
      const MessageDictionary& a = *dictionary();
      const MessageDictionary& b = *other.dictionary();
      if (a.size() != b.size()) return false;
      for (const auto& entry : a.entries()) {
        const MessageObject* match = b.find(entry.key);
        if (!match || !(*match == entry.value)) return false;
      }
      return true;
    }
    case MessageType::FileDescriptor:
    case MessageType::SharedMemory:
    case MessageType::Connection:
      return ref_ == other.ref_;
  }
  return false;
}

std::string MessageObject::description() const {
  switch (type_) {
    case MessageType::Null:
      return "<null>";
    case MessageType::Bool:
      return v_.b ? "<bool: true>" : "<bool: false>";
    case MessageType::Int64:
      return Format("<int64: %lld>", static_cast<long long>(v_.i));
    case MessageType::UInt64:
      return Format("<uint64: %llu>", static_cast<unsigned long long>(v_.u));
    case MessageType::Double:
      return Format("<double: %g>", v_.d);
    case MessageType::Date:
      return Format("<date: %f>", v_.d);
    case MessageType::Uuid:
      return "<uuid>";
    case MessageType::String:
      return Format("<string: %zu bytes>", v_.bytes.n);
    case MessageType::Data:
      return Format("<data: %zu bytes>", v_.bytes.n);
    case MessageType::FileDescriptor:
      return Format("<fd: %d>", fileDescriptor());
    case MessageType::SharedMemory:
      return Format("<shmem: %llu bytes>",
                    static_cast<unsigned long long>(sharedMemory()->length()));
    case MessageType::Array:
      return Format("<array: %zu items>", array()->size());
    case MessageType::Dictionary:
      return Format("<dictionary: %zu entries>", dictionary()->size());
    case MessageType::Error:
      return Format("<error: %s>", MessageErrorDescription(v_.error));
    case MessageType::Connection:
      return "<connection>";
  }
  return "<unknown>";
}

// MessageDictionary

std::shared_ptr<MessageDictionary> MessageDictionary::CreateReply(
    const MessageDictionary& request) {
  if (!request.expectsReply() || !request.remote_) return nullptr;
  auto reply = Create();
  reply->remote_ = request.remote_;
  reply->replyTo_ = request.requestSerial_;
  return reply;
}

void MessageDictionary::set(std::string_view key, MessageObject value) {
  for (Entry& entry : entries_) {
    if (entry.key == key) {
      entry.value = std::move(value);
      return;
    }
  }
  auto copy = std::make_unique_for_overwrite<char[]>(key.size() ? key.size() : 1);
  if (!key.empty()) std::memcpy(copy.get(), key.data(), key.size());
  entries_.push_back({std::string_view(copy.get(), key.size()), std::move(value)});
  ownedKeys_.push_back(std::move(copy));
}

bool MessageDictionary::remove(std::string_view key) {
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->key == key) {
      entries_.erase(it);
      return true;
    }
  }
  return false;
}

const MessageObject* MessageDictionary::find(std::string_view key) const {
  // Message dictionaries hold a handful of keys: a linear scan beats any
  // index, and keeps decoding free of per-entry allocations.
  for (const Entry& entry : entries_)
    if (entry.key == key) return &entry.value;
  return nullptr;
}

std::optional<std::string_view> MessageDictionary::string(std::string_view key) const {
  const MessageObject* o = find(key);
  return o ? o->stringValue() : std::nullopt;
}

std::optional<std::span<const uint8_t>> MessageDictionary::data(std::string_view key) const {
  const MessageObject* o = find(key);
  return o ? o->dataValue() : std::nullopt;
}

std::optional<uint64_t> MessageDictionary::uint64(std::string_view key) const {
  const MessageObject* o = find(key);
  return o ? o->uint64Value() : std::nullopt;
}

std::optional<int64_t> MessageDictionary::int64(std::string_view key) const {
  const MessageObject* o = find(key);
  return o ? o->int64Value() : std::nullopt;
}

std::optional<bool> MessageDictionary::boolean(std::string_view key) const {
  const MessageObject* o = find(key);
  return o ? o->boolValue() : std::nullopt;
}

// MessageSharedMemory

MessageSharedMemory::MessageSharedMemory(ScopedFd fd, uint64_t length)
    : fd_(std::move(fd)), length_(length) {}

MessageSharedMemory::MessageSharedMemory(std::unique_ptr<SharedMemoryRegion> region)
    : length_(region ? region->size() : 0),
      data_(region ? region->data() : nullptr),
      region_(region.release()) {}

MessageSharedMemory::~MessageSharedMemory() { delete region_.load(std::memory_order_acquire); }

std::unique_ptr<SharedMemoryRegion> MessageSharedMemory::takeRegion() {
  return std::unique_ptr<SharedMemoryRegion>(region_.exchange(nullptr, std::memory_order_acq_rel));
}

}  // namespace kx
