#include "kx/KXDPQMessage.h"

#include <utility>

#include "kx/assert.h"
#include "kx/log.h"
#include "base/property_list.h"
#include "platform/message/message_connection.h"
#include "platform/message/message_object.h"
#include "platform/message/shared_memory.h"

namespace {

// The info payload as a data value, or nullopt when it does not encode.
std::optional<kx::MessageObject> EncodeInfo(const kx::Value& info) {
  std::string error;
  std::vector<uint8_t> bytes = kx::EncodeBinaryPropertyList(info, &error);
  if (!error.empty()) {
    KXLOG(3, "Cannot serialize message info: %@", error);
    return std::nullopt;
  }
  if (bytes.empty()) return std::nullopt;
  return kx::MessageObject::Data(std::move(bytes));
}

}  // namespace

std::shared_ptr<KXDPQMessage> KXDPQMessage::initWithName(std::optional<std::string> name) {
  auto message = std::make_shared<KXDPQMessage>(Passkey{});
  message->name_ = std::move(name);
  return message;
}

std::shared_ptr<KXDPQMessage> KXDPQMessage::_initWithDPQMessage(
    std::shared_ptr<kx::MessageDictionary> raw, std::shared_ptr<KXDPQConnection> connection) {
  if (!raw) return nullptr;
  auto message = std::make_shared<KXDPQMessage>(Passkey{});
  message->receivingConnection_ = std::move(connection);
  if (std::optional<std::string_view> name = raw->string(kDKMessageNameKey)) message->name_ = *name;

  std::optional<std::span<const uint8_t>> info = raw->data(kDKMessageInfoKey);
  if (info && !info->empty()) {
    kx::PropertyListResult parsed = kx::DecodeBinaryPropertyList(*info);
    if (!parsed.ok()) KXLOG(3, "Error deserializing plist %@", parsed.error);
    message->setInfo(std::move(parsed.value));
  }

  if (const kx::MessageObject* shmem = raw->find(kDKMessageShMemKey)) {
    kx::MessageSharedMemory* memory = shmem->sharedMemory();
    const uint64_t declared = raw->uint64(kDKMessageShMemLenKey).value_or(0);
    // The mapping holds exactly the bytes the region object declared; a
    // larger envelope length would send readers past its end.
    const uint64_t available = memory ? memory->length() : 0;
    if (declared > available) {
      KXLOG(3, "Dropping message %@: declared shared memory length %llu exceeds the region's %llu bytes",
            message->name_, static_cast<unsigned long long>(declared),
            static_cast<unsigned long long>(available));
      return nullptr;
    }
    if (memory) {
      message->x_shmem_ = memory;
      message->shmemPtr_ = memory->data();
      message->shmemLen_ = declared;
    }
  }

  message->x_reply_ = kx::MessageDictionary::CreateReply(*raw);
  if (message->x_reply_) message->x_reply_connection_ = raw->remoteConnection();
  message->x_message_ = std::move(raw);
  return message;
}

std::shared_ptr<kx::MessageDictionary> KXDPQMessage::_createDPQMessage() const {
  auto dictionary = kx::MessageDictionary::Create();
  if (name_) dictionary->set(kDKMessageNameKey, kx::MessageObject::String(*name_));
  if (info_) {
    if (std::optional<kx::MessageObject> data = EncodeInfo(info_))
      dictionary->set(kDKMessageInfoKey, std::move(*data));
  }
  KX_ASSERT(!shmemPtr_ || shmemLen_ != 0, "Shared memory region must have length!");
  if (shmemPtr_ && shmemLen_ != 0) {
    std::optional<kx::MessageObject> region =
        kx::MessageObject::SharedMemory(shmemPtr_, static_cast<size_t>(shmemLen_));
    if (!region) {
      // Sending the message without the region it announces would mislead
      // the receiver; it is not sent at all.
      KXLOG(3, "Cannot share %llu bytes of memory for message %@",
            static_cast<unsigned long long>(shmemLen_), name_);
      return nullptr;
    }
    dictionary->set(kDKMessageShMemKey, std::move(*region));
  }
  if (shmemLen_ != 0) dictionary->set(kDKMessageShMemLenKey, kx::MessageObject::UInt64(shmemLen_));
  return dictionary;
}

void KXDPQMessage::sendReply(const kx::Value& info) {
  const bool expected = x_reply_ && x_reply_connection_ &&
                        !replied_.exchange(true, std::memory_order_acq_rel);
  KX_ASSERT(expected, "Trying to send reply where one isn't expected");
  if (!expected) return;
  if (info) {
    if (std::optional<kx::MessageObject> data = EncodeInfo(info))
      x_reply_->set(kDKMessageInfoKey, std::move(*data));
  }
  x_reply_connection_->send(*x_reply_);
}

bool KXDPQMessage::needsReply() const {
  return x_reply_ && x_reply_connection_ && !replied_.load(std::memory_order_acquire);
}

void KXDPQMessage::setInfo(kx::Value info) {
  info_ = info.dictionary() ? std::move(info) : kx::Value();
}

std::unique_ptr<kx::SharedMemoryRegion> KXDPQMessage::takeSharedMemoryRegion() {
  return x_shmem_ ? x_shmem_->takeRegion() : nullptr;
}
