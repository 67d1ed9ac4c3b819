#include "kx/KXDPQConnection.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "kx/assert.h"
#include "kx/format.h"
#include "kx/log.h"
#include "platform/message/message_connection.h"
#include "platform/message/message_object.h"
#include "platform/message/shared_memory.h"

namespace {

constexpr const char* kEventQueueLabel = "com.orvex.search.DPQEvent";

// The console line of a failed reply goes out whatever the log thresholds
// are, in one write so that lines of parallel replies do not interleave.
void WriteReplyErrorToConsole(const char* description) {
  const std::string line = kx::Format("Reply Error: %s\n", description);
  for (size_t written = 0; written < line.size();) {
    const ssize_t n = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    written += static_cast<size_t>(n);
  }
}

}  // namespace

KXDPQConnection::KXDPQConnection(Passkey, std::shared_ptr<kx::Queue> queue)
    : eventQueue_(queue ? queue
                        // The pool's threads stand in for the platform's
                        // high-priority concurrent queue.
                        : kx::Queue::Create(kEventQueueLabel, kx::Queue::QoS::UserInitiated)),
      ownsQueue_(!queue) {}

KXDPQConnection::~KXDPQConnection() { KXLOG(7, "KXDPQConnection dealloc"); }

std::shared_ptr<KXDPQConnection> KXDPQConnection::self() {
  return std::static_pointer_cast<KXDPQConnection>(shared_from_this());
}

std::shared_ptr<KXDPQConnection> KXDPQConnection::initWithServiceName(
    std::string_view serviceName, std::shared_ptr<kx::Queue> queue) {
  auto connection = std::make_shared<KXDPQConnection>(Passkey{}, std::move(queue));
  std::shared_ptr<kx::MessageConnection> raw =
      kx::MessageConnection::CreateClient(serviceName, connection->eventQueue_);
  connection->conn_ = raw;
  connection->_setEventHandlerOnConnection(raw);
  raw->resume();
  return connection;
}

std::shared_ptr<KXDPQConnection> KXDPQConnection::initWithDPQConnection(
    std::shared_ptr<kx::MessageConnection> raw) {
  std::shared_ptr<KXDPQConnection> connection = _wrapDPQConnection(std::move(raw));
  if (connection) connection->_resume();
  return connection;
}

std::shared_ptr<KXDPQConnection> KXDPQConnection::_wrapDPQConnection(
    std::shared_ptr<kx::MessageConnection> raw) {
  KX_ASSERT(raw != nullptr, "Must have dpq_connection");
  if (!raw) return nullptr;
  auto connection = std::make_shared<KXDPQConnection>(Passkey{}, nullptr);
  raw->setTargetQueue(connection->eventQueue_);
  connection->_setEventHandlerOnConnection(raw);
  connection->conn_ = std::move(raw);
  return connection;
}

void KXDPQConnection::_resume() {
  if (std::shared_ptr<kx::MessageConnection> raw = connection()) raw->resume();
}

void KXDPQConnection::_setEventHandlerOnConnection(
    const std::shared_ptr<kx::MessageConnection>& raw) {
  std::weak_ptr<KXDPQConnection> weak = self();
  raw->setEventHandler([weak](const kx::MessageObject& event) {
    std::shared_ptr<KXDPQConnection> connection = weak.lock();
    if (!connection) return;
    switch (event.type()) {
      case kx::MessageType::Error:
        connection->_handleDPQError(*event.errorValue());
        break;
      case kx::MessageType::Dictionary:
        connection->_handleDPQMessage(event.dictionaryRef());
        break;
      default:
        KXLOG(6, "Ignoring unexpected event of type %s", StringForDPQType(event.type()));
        break;
    }
  });
}

void KXDPQConnection::_handleDPQMessage(std::shared_ptr<kx::MessageDictionary> raw) {
  KX_ASSERT_ON_QUEUE(eventQueue_);
  std::shared_ptr<const MessageHandler> handler;
  {
    std::lock_guard lock(mu_);
    handler = messageHandler_;
  }
  if (!handler) return;
  std::shared_ptr<KXDPQMessage> message = KXDPQMessage::_initWithDPQMessage(std::move(raw), self());
  if (!message) return;
  KXLOG(7, "Handle message: %@", message->name());
  (*handler)(message);
}

void KXDPQConnection::_handleDPQError(kx::MessageError error) {
  KX_ASSERT_ON_QUEUE(eventQueue_);
  switch (error) {
    case kx::MessageError::Interrupted:
      KXLOG(7, "DPQ Connection interrupted %@", this);
      break;
    case kx::MessageError::Invalid:
      KXLOG(7, "DPQ Connection invalid %@", this);
      break;
    default: {
      const char* description = kx::MessageErrorDescription(error);
      KXLOG(6, "Error: %s", description ? description : "Unknown error");
      return;
    }
  }
  // Taken out before the call: the handler runs at most once, and a
  // handler that installs a new one keeps it.
  std::shared_ptr<const DisconnectHandler> handler;
  {
    std::lock_guard lock(mu_);
    handler = std::move(disconnectHandler_);
    disconnectHandler_ = nullptr;
  }
  if (handler) (*handler)();
}

void KXDPQConnection::sendMessage(const std::shared_ptr<KXDPQMessage>& message) {
  _sendMessage(message, nullptr);
}

void KXDPQConnection::sendMessage(const std::shared_ptr<KXDPQMessage>& message,
                                  ReplyCallback reply) {
  if (!message) {
    KXLOG(7, "Ignoring request to send a nil message");
    return;
  }
  KXLOG(7, "sendMessage: %@", message->name());
  kx::MessageConnection::ReplyHandler handler;
  if (reply) {
    // Holds this connection until the reply arrives, so the reply is
    // delivered even when the owner let go of the connection meanwhile.
    handler = [connection = self(), reply = std::move(reply)](const kx::MessageObject& event) {
      switch (event.type()) {
        case kx::MessageType::Error: {
          const std::optional<kx::MessageError> error = event.errorValue();
          const char* description = error ? kx::MessageErrorDescription(*error) : nullptr;
          if (!description) description = "Unknown error";
          KXLOG(7, "Reply Error:%s", description);
          WriteReplyErrorToConsole(description);
          reply(nullptr);
          break;
        }
        case kx::MessageType::Dictionary:
          // Null when the reply had to be dropped: the caller still learns
          // that no answer is coming.
          reply(KXDPQMessage::_initWithDPQMessage(event.dictionaryRef(), connection));
          break;
        default:
          KXLOG(6, "Ignoring unexpected event of type %s", StringForDPQType(event.type()));
          break;
      }
    };
  }
  _sendMessage(message, std::move(handler));
}

void KXDPQConnection::_sendMessage(const std::shared_ptr<KXDPQMessage>& message,
                                   kx::MessageConnection::ReplyHandler handler) {
  const bool named = message && message->name();
  KX_ASSERT(named, "Message must have a name");
  if (!named) return;
  std::shared_ptr<kx::MessageConnection> raw = connection();
  if (!raw) return;
  std::shared_ptr<kx::MessageDictionary> dictionary = message->_createDPQMessage();
  if (!dictionary) return;
  if (handler) {
    raw->sendWithReply(*dictionary, eventQueue_, std::move(handler));
  } else {
    raw->send(*dictionary);
  }
}

void KXDPQConnection::shutdown() {
  KXLOG(7, "Shutdown called on DPQ connection %@", this);
  std::shared_ptr<kx::MessageConnection> raw;
  {
    // Dropped at once rather than in the barrier, so that no send that
    // follows this call can slip out before the cancel.
    std::lock_guard lock(mu_);
    raw = std::move(conn_);
    conn_ = nullptr;
  }
  if (!raw) return;
  // The barrier owns the connection until it has run; cancelling also
  // releases it from the connection's own queue.
  raw->sendBarrier([raw] { raw->cancel(); });
}

std::shared_ptr<kx::MessageConnection> KXDPQConnection::connection() const {
  std::lock_guard lock(mu_);
  return conn_;
}

std::optional<std::string> KXDPQConnection::serviceName() const {
  std::shared_ptr<kx::MessageConnection> raw = connection();
  if (!raw) return std::nullopt;
  return raw->serviceName();
}

std::optional<std::string> KXDPQConnection::bundleID() {
  std::shared_ptr<kx::MessageConnection> raw;
  {
    std::lock_guard lock(mu_);
    if (bundleID_) return bundleID_;
    raw = conn_;
  }
  if (!raw) return std::nullopt;
  // Asked again next time when the service knows none yet.
  std::optional<std::string> identifier = raw->copyPeerBundleIdentifier();
  if (!identifier) return std::nullopt;
  std::lock_guard lock(mu_);
  if (!bundleID_) bundleID_ = std::move(identifier);
  return bundleID_;
}

KXDPQConnection::MessageHandler KXDPQConnection::messageHandler() const {
  std::lock_guard lock(mu_);
  return messageHandler_ ? *messageHandler_ : MessageHandler();
}

void KXDPQConnection::setMessageHandler(MessageHandler handler) {
  auto stored = handler ? std::make_shared<const MessageHandler>(std::move(handler)) : nullptr;
  {
    std::lock_guard lock(mu_);
    std::swap(messageHandler_, stored);
  }
  // The previous handler is released outside the lock: it may own the last
  // reference to an object whose destruction reaches back here.
}

KXDPQConnection::DisconnectHandler KXDPQConnection::disconnectHandler() const {
  std::lock_guard lock(mu_);
  return disconnectHandler_ ? *disconnectHandler_ : DisconnectHandler();
}

void KXDPQConnection::setDisconnectHandler(DisconnectHandler handler) {
  auto stored = handler ? std::make_shared<const DisconnectHandler>(std::move(handler)) : nullptr;
  {
    std::lock_guard lock(mu_);
    std::swap(disconnectHandler_, stored);
  }
}

std::shared_ptr<void> KXDPQConnection::context() const {
  std::lock_guard lock(mu_);
  return context_;
}

void KXDPQConnection::setContext(std::shared_ptr<void> context) {
  {
    std::lock_guard lock(mu_);
    std::swap(context_, context);
  }
}

const char* KXDPQConnection::StringForDPQType(kx::MessageType type) {
  switch (type) {
    case kx::MessageType::Connection: return "DPQ_TYPE_CONNECTION";
    case kx::MessageType::Null: return "DPQ_TYPE_NULL";
    case kx::MessageType::Bool: return "DPQ_TYPE_BOOL";
    case kx::MessageType::Int64: return "DPQ_TYPE_INT64";
    case kx::MessageType::UInt64: return "DPQ_TYPE_UINT64";
    case kx::MessageType::Double: return "DPQ_TYPE_DOUBLE";
    case kx::MessageType::Date: return "DPQ_TYPE_DATE";
    case kx::MessageType::Data: return "DPQ_TYPE_DATA";
    case kx::MessageType::String: return "DPQ_TYPE_STRING";
    case kx::MessageType::Uuid: return "DPQ_TYPE_UUID";
    case kx::MessageType::FileDescriptor: return "DPQ_TYPE_FD";
    case kx::MessageType::SharedMemory: return "DPQ_TYPE_SHMEM";
    case kx::MessageType::Array: return "DPQ_TYPE_ARRAY";
    case kx::MessageType::Dictionary: return "DPQ_TYPE_DICTIONARY";
    case kx::MessageType::Error: return "DPQ_TYPE_ERROR";
  }
  return "Unknown type";
}
