// One connection of the message service, in either role: a client of a
// named service, or a peer that a listener (KXDPQServer) accepted. Turns
// incoming dictionaries into KXDPQMessage objects for the message handler,
// sends messages with or without a reply callback, reports the loss of the
// peer once through the disconnect handler, and shuts down in order.
//
// Invariants:
// - Every event, message and reply of a connection runs on its serial
//   `eventQueue`, in arrival order.
// - The callback installed on the underlying connection holds this object
//   weakly: an open connection does not keep its wrapper alive, and events
//   after the wrapper's destruction are no-ops. Destroying the wrapper does
//   not close the connection; owners call `shutdown`.
// - The disconnect handler runs at most once (interruption followed by
//   invalidation included).
// - After `shutdown`, nothing more is sent and reply callbacks of later
//   sends are never called.
//
// Handlers are read on the event queue and may be set from any thread. A
// handler set after the connection was made can miss events that arrived
// before it; the owner avoids that by making the connection on its event
// queue and setting the handlers in the same job.
#pragma once

#include "kx/export.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kx/KXDPQMessage.h"
#include "kx/value.h"
#include "kx/queue.h"

class KXDPQServer;

class KX_EXPORT KXDPQConnection : public kx::Object {
  struct Passkey {};

 public:
  using MessageHandler = std::function<void(const std::shared_ptr<KXDPQMessage>& message)>;
  using DisconnectHandler = std::function<void()>;
  // Receives the reply, or null when the connection ended first.
  using ReplyCallback = std::function<void(const std::shared_ptr<KXDPQMessage>& reply)>;

  // Client role: connects to the named service. Events arrive on `queue`,
  // or on a queue of the connection's own ("com.orvex.search.DPQEvent")
  // when it is null.
  static std::shared_ptr<KXDPQConnection> initWithServiceName(std::string_view serviceName,
                                                              std::shared_ptr<kx::Queue> queue);
  // Server role: wraps and resumes a peer that a listener accepted, on a
  // queue of its own. Null (after an assertion) when `connection` is null.
  static std::shared_ptr<KXDPQConnection> initWithDPQConnection(
      std::shared_ptr<kx::MessageConnection> connection);

  ~KXDPQConnection() override;

  // One-way. A message without a name fails an assertion.
  void sendMessage(const std::shared_ptr<KXDPQMessage>& message);
  // Two-way when `reply` is set: it runs once on the event queue with the
  // reply, or with null when the peer answered with an error (the peer went
  // away, or the connection was shut down while the reply was awaited).
  void sendMessage(const std::shared_ptr<KXDPQMessage>& message, ReplyCallback reply);
  // The common sending step: `handler` receives the raw reply event.
  void _sendMessage(const std::shared_ptr<KXDPQMessage>& message,
                    std::function<void(const kx::MessageObject& reply)> handler);

  // Cancels the connection once every message sent so far has been handed
  // to the kernel. Sends after this call are ignored.
  void shutdown();

  const std::shared_ptr<kx::Queue>& eventQueue() const { return eventQueue_; }
  // True when the connection made its event queue itself.
  bool ownsQueue() const { return ownsQueue_; }
  // The underlying connection's service; nullopt after `shutdown`.
  std::optional<std::string> serviceName() const;
  // The peer's bundle identifier, as the kernel describes the peer; cached
  // once known.
  std::optional<std::string> bundleID();

  MessageHandler messageHandler() const;
  void setMessageHandler(MessageHandler handler);
  DisconnectHandler disconnectHandler() const;
  void setDisconnectHandler(DisconnectHandler handler);
  // The owner's attachment (a listener keeps per-peer state here).
  std::shared_ptr<void> context() const;
  void setContext(std::shared_ptr<void> context);

  // The name of a message-service object type for log lines.
  static const char* StringForDPQType(kx::MessageType type);

  std::string className() const override { return "KXDPQConnection"; }

  KXDPQConnection(Passkey, std::shared_ptr<kx::Queue> queue);

 private:
  friend class KXDPQServer;

  // A wrapper of an accepted peer that is not resumed yet, so that its
  // owner can set the handlers before the first event.
  static std::shared_ptr<KXDPQConnection> _wrapDPQConnection(
      std::shared_ptr<kx::MessageConnection> connection);
  void _resume();

  std::shared_ptr<KXDPQConnection> self();
  void _setEventHandlerOnConnection(const std::shared_ptr<kx::MessageConnection>& connection);
  void _handleDPQMessage(std::shared_ptr<kx::MessageDictionary> message);
  void _handleDPQError(kx::MessageError error);
  std::shared_ptr<kx::MessageConnection> connection() const;

  const std::shared_ptr<kx::Queue> eventQueue_;
  const bool ownsQueue_;

  mutable std::mutex mu_;
  // Guarded by mu_. Handlers are shared so that reading one is a reference
  // count increment, not a copy of the callable.
  std::shared_ptr<kx::MessageConnection> conn_;
  std::optional<std::string> bundleID_;
  std::shared_ptr<const DisconnectHandler> disconnectHandler_;
  std::shared_ptr<const MessageHandler> messageHandler_;
  std::shared_ptr<void> context_;
};
