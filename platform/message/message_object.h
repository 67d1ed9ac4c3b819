// Typed values of the inter-process message service.
//
// A `MessageObject` is a small tagged value. Scalars live inline; strings and
// data are views of bytes that the object keeps alive (a received message's
// datagram buffer, or a copy made when the value was built); descriptors,
// shared memory, arrays, dictionaries and connections are reference-counted
// and shared between copies, so copying a MessageObject never copies
// payload. Arrays and dictionaries are mutable through any copy.
//
// Absent and empty stay apart: a dictionary lookup of a missing key yields a
// null pointer or nullopt, never an empty value, and typed accessors return
// nullopt for values of another type.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kx/value.h"
#include "platform/message/message_fd.h"
#include "platform/message/shared_memory.h"

namespace kx {

class MessageArray;
class MessageConnection;
class MessageDictionary;
class MessageSharedMemory;

// The kinds of message-service objects. The order is the order in which the
// message layer's event-type table tests them.
enum class MessageType : uint8_t {
  Connection,
  Null,
  Bool,
  Int64,
  UInt64,
  Double,
  Date,
  Data,
  String,
  Uuid,
  FileDescriptor,
  SharedMemory,
  Array,
  Dictionary,
  Error,
};

// Errors that arrive as events: on a connection's event handler, and in
// place of the reply for every reply handler still waiting when the
// connection ends.
enum class MessageError : uint8_t {
  // The peer went away after the connection had been made.
  Interrupted,
  // The service could not be reached, or the connection was cancelled. It is
  // the last event a connection delivers.
  Invalid,
};

// "Connection interrupted" / "Connection invalid".
const char* MessageErrorDescription(MessageError error);

using MessageUuid = std::array<uint8_t, 16>;

class MessageObject {
 public:
  // The null value.
  MessageObject() = default;

  static MessageObject Bool(bool value);
  static MessageObject Int64(int64_t value);
  static MessageObject UInt64(uint64_t value);
  static MessageObject Double(double value);
  static MessageObject Date(kx::Date value);
  static MessageObject Uuid(const MessageUuid& value);
  // Copies the bytes.
  static MessageObject String(std::string_view value);
  static MessageObject Data(std::span<const uint8_t> bytes);
  // Adopts the bytes without copying.
  static MessageObject Data(std::vector<uint8_t>&& bytes);
  // Views of bytes that `owner` keeps alive; no copy.
  static MessageObject StringView(std::string_view value, std::shared_ptr<const void> owner);
  static MessageObject DataView(std::span<const uint8_t> bytes, std::shared_ptr<const void> owner);
  // Takes ownership of the descriptor; it is closed when the last copy of
  // the object goes away. Sending passes a duplicate to the peer.
  static MessageObject FileDescriptor(ScopedFd fd);
  // A shared-memory object over the first `length` bytes at `address`: the
  // allocator's region is sealed and its descriptor duplicated, other memory
  // is copied into a new sealed memfd (see shared_memory.h). Nullopt when
  // `length` is 0 or the kernel refuses.
  static std::optional<MessageObject> SharedMemory(const void* address, size_t length);
  static MessageObject SharedMemory(std::shared_ptr<MessageSharedMemory> memory);
  static MessageObject Array(std::shared_ptr<MessageArray> array);
  static MessageObject Dictionary(std::shared_ptr<MessageDictionary> dictionary);
  static MessageObject Error(MessageError error);
  static MessageObject Connection(std::shared_ptr<MessageConnection> connection);

  MessageType type() const { return type_; }

  // Typed access: nullopt (or null, or -1) when the value is of another type.
  std::optional<bool> boolValue() const;
  std::optional<int64_t> int64Value() const;
  std::optional<uint64_t> uint64Value() const;
  std::optional<double> doubleValue() const;
  std::optional<kx::Date> dateValue() const;
  std::optional<MessageUuid> uuidValue() const;
  std::optional<std::string_view> stringValue() const;
  std::optional<std::span<const uint8_t>> dataValue() const;
  std::optional<MessageError> errorValue() const;
  // Borrowed: stays owned by the object.
  int fileDescriptor() const;
  MessageSharedMemory* sharedMemory() const;
  MessageArray* array() const;
  MessageDictionary* dictionary() const;
  std::shared_ptr<MessageDictionary> dictionaryRef() const;
  std::shared_ptr<MessageConnection> connection() const;

  // Deep equality of values. Descriptors, shared memory and connections are
  // equal only to copies of the same object.
  bool operator==(const MessageObject& other) const;

  // A short description for log lines: "<dictionary: 3 entries>".
  std::string description() const;

 private:
  template <class T>
  T* refAs() const {
    return static_cast<T*>(const_cast<void*>(ref_.get()));
  }

  MessageType type_ = MessageType::Null;
  union Payload {
    bool b;
    int64_t i;
    uint64_t u;
    double d;
    MessageError error;
    struct {
      const void* p;
      size_t n;
    } bytes;
    uint8_t uuid[16];
  } v_{};
  // Keeps bytes or the referenced object alive; null for scalars.
  std::shared_ptr<const void> ref_;
};

class MessageArray {
 public:
  static std::shared_ptr<MessageArray> Create() { return std::make_shared<MessageArray>(); }

  void append(MessageObject value) { items_.push_back(std::move(value)); }
  void reserve(size_t n) { items_.reserve(n); }
  size_t size() const { return items_.size(); }
  // Null when out of range.
  const MessageObject* at(size_t index) const {
    return index < items_.size() ? &items_[index] : nullptr;
  }
  std::span<const MessageObject> items() const { return items_; }

 private:
  std::vector<MessageObject> items_;
};

// A dictionary keeps its entries in insertion order; keys are unique.
class MessageDictionary {
 public:
  struct Entry {
    std::string_view key;  // points into storage the dictionary keeps alive
    MessageObject value;
  };

  static std::shared_ptr<MessageDictionary> Create() {
    return std::make_shared<MessageDictionary>();
  }
  // A reply bound to the sender of `request`: sending it on the request's
  // remote connection answers the request. Null when the sender of
  // `request` expects no reply (or `request` was not received).
  static std::shared_ptr<MessageDictionary> CreateReply(const MessageDictionary& request);

  // Adds or replaces the value under `key` (the key is copied).
  void set(std::string_view key, MessageObject value);
  // False when the key was absent.
  bool remove(std::string_view key);
  const MessageObject* find(std::string_view key) const;
  size_t size() const { return entries_.size(); }
  std::span<const Entry> entries() const { return entries_; }

  // Typed lookups: nullopt when the key is absent or of another type.
  std::optional<std::string_view> string(std::string_view key) const;
  std::optional<std::span<const uint8_t>> data(std::string_view key) const;
  std::optional<uint64_t> uint64(std::string_view key) const;
  std::optional<int64_t> int64(std::string_view key) const;
  std::optional<bool> boolean(std::string_view key) const;

  // For received dictionaries: the connection the dictionary arrived on.
  const std::shared_ptr<MessageConnection>& remoteConnection() const { return remote_; }
  // True for a received request whose sender waits for a reply.
  bool expectsReply() const { return requestSerial_ != 0; }
  // For replies made by CreateReply: the serial number of the request they
  // answer; 0 otherwise.
  uint64_t replySerial() const { return replyTo_; }

 private:
  friend class MessageDecoder;
  friend class MessageConnection;

  // Decoder path: `key` already lies in storage kept by `adoptStorage`.
  void appendUnowned(std::string_view key, MessageObject value) {
    entries_.push_back({key, std::move(value)});
  }
  void adoptStorage(std::shared_ptr<const void> storage) { storage_ = std::move(storage); }

  std::vector<Entry> entries_;
  // Backing of keys of decoded entries (the received datagram).
  std::shared_ptr<const void> storage_;
  // Backing of keys added with `set`; never moved, so entry keys stay valid.
  std::vector<std::unique_ptr<char[]>> ownedKeys_;
  std::shared_ptr<MessageConnection> remote_;
  uint64_t requestSerial_ = 0;
  uint64_t replyTo_ = 0;
};

// A shared-memory region in a message. An outgoing one holds a sealed
// descriptor for the region; a received one holds the private read-only
// mapping made at receipt, which is unmapped when the last copy of the
// message goes away unless a reader has taken it over.
class MessageSharedMemory {
 public:
  // Outgoing: a sealed memfd and the number of bytes it shares.
  MessageSharedMemory(ScopedFd fd, uint64_t length);
  // Received: the mapping made at receipt.
  explicit MessageSharedMemory(std::unique_ptr<SharedMemoryRegion> region);
  ~MessageSharedMemory();
  MessageSharedMemory(const MessageSharedMemory&) = delete;
  MessageSharedMemory& operator=(const MessageSharedMemory&) = delete;

  // The length the sender declared (not the page-rounded mapping size).
  uint64_t length() const { return length_; }
  // Outgoing objects only; -1 for received ones.
  int descriptor() const { return fd_.get(); }
  // Start of the received mapping; null for outgoing objects. Stays valid
  // after `takeRegion` for as long as the taker keeps the region.
  const uint8_t* data() const { return data_; }
  // Hands the mapping over to the caller, once; null afterwards.
  std::unique_ptr<SharedMemoryRegion> takeRegion();

 private:
  ScopedFd fd_;
  uint64_t length_ = 0;
  const uint8_t* data_ = nullptr;
  std::atomic<SharedMemoryRegion*> region_{nullptr};
};

}  // namespace kx
