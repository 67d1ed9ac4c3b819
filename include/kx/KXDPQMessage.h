// The one envelope of every client/daemon exchange: a name, an optional info
// dictionary and an optional shared-memory region with its length.
//
// Wire form: one message-service dictionary with at most four keys, in this
// order, absent values left out:
//   "kDKMessageNameKey"      string  the name (required on send)
//   "kDKMessageInfoKey"      data    info as a binary property list 1.0
//   "kDKMessageShMemKey"     shared memory
//   "kDKMessageShMemLenKey"  uint64  meaningful bytes of the region
// A reply carries only "kDKMessageInfoKey", or nothing.
//
// Ownership of shared memory: the message never allocates or frees a region.
// An outgoing message borrows the sender's region (the allocator's regions
// travel as a duplicate of their sealed descriptor, anything else as a
// sealed copy). A received message points into the read-only mapping made
// at receipt, which lives as long as the message unless a reader takes it
// over with `takeSharedMemoryRegion`.
//
// Threads: a message is built and read on one queue at a time; `sendReply`
// may be called later from another queue, once.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kx/value.h"
#include "kx/export.h"

namespace kx {
class MessageConnection;
class MessageDictionary;
class MessageObject;
class MessageSharedMemory;
class SharedMemoryRegion;
enum class MessageType : uint8_t;
enum class MessageError : uint8_t;
}  // namespace kx

class KXDPQConnection;

inline constexpr std::string_view kDKMessageNameKey = "kDKMessageNameKey";
inline constexpr std::string_view kDKMessageInfoKey = "kDKMessageInfoKey";
inline constexpr std::string_view kDKMessageShMemKey = "kDKMessageShMemKey";
inline constexpr std::string_view kDKMessageShMemLenKey = "kDKMessageShMemLenKey";

class KX_EXPORT KXDPQMessage : public kx::Object {
  struct Passkey {};

 public:
  // An outgoing message; info, region and length empty.
  static std::shared_ptr<KXDPQMessage> initWithName(std::optional<std::string> name);

  // A received message built from the raw dictionary that arrived on
  // `connection` (null for none). Null when the message must be dropped: a
  // declared shared-memory length beyond the region that came with it
  // (logged at level 3).
  static std::shared_ptr<KXDPQMessage> _initWithDPQMessage(
      std::shared_ptr<kx::MessageDictionary> message, std::shared_ptr<KXDPQConnection> connection);

  // The wire form for sending, or null when the region cannot be shared.
  std::shared_ptr<kx::MessageDictionary> _createDPQMessage() const;

  // Answers a received request, once; `info` is a dictionary or nil. An
  // empty reply still releases the waiting sender.
  void sendReply(const kx::Value& info = kx::Value());
  // True for a received request that has not been answered yet.
  bool needsReply() const;

  const std::optional<std::string>& name() const { return name_; }
  // Nil or a dictionary.
  const kx::Value& info() const { return info_; }
  // Anything but a dictionary leaves info absent, as it does on receipt.
  void setInfo(kx::Value info);

  const void* sharedMemoryRegion() const { return shmemPtr_; }
  void setSharedMemoryRegion(const void* region) { shmemPtr_ = region; }
  uint64_t sharedMemoryLength() const { return shmemLen_; }
  void setSharedMemoryLength(uint64_t length) { shmemLen_ = length; }
  // Received messages: hands the mapping over to the caller, once, so that
  // it outlives the message; `sharedMemoryRegion` stays valid for as long
  // as the caller keeps it. Null for outgoing messages and after the first
  // call.
  std::unique_ptr<kx::SharedMemoryRegion> takeSharedMemoryRegion();

  // The connection the message arrived on; null for outgoing messages.
  const std::shared_ptr<KXDPQConnection>& receivingConnection() const {
    return receivingConnection_;
  }

  std::string className() const override { return "KXDPQMessage"; }

  explicit KXDPQMessage(Passkey) {}

 private:
  std::optional<std::string> name_;
  std::shared_ptr<KXDPQConnection> receivingConnection_;
  kx::Value info_;
  const void* shmemPtr_ = nullptr;
  uint64_t shmemLen_ = 0;
  // Received messages: the raw dictionary (it owns the mapping of the
  // region), the shared-memory object inside it, and the reply bound to the
  // sender (null when the sender waits for none).
  std::shared_ptr<kx::MessageDictionary> x_message_;
  kx::MessageSharedMemory* x_shmem_ = nullptr;
  std::shared_ptr<kx::MessageDictionary> x_reply_;
  std::shared_ptr<kx::MessageConnection> x_reply_connection_;
  // Set by the one `sendReply` that answers.
  std::atomic<bool> replied_{false};
};
