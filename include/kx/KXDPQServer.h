// The serving end of the message layer: listens on a named service, wraps
// every accepted peer in a KXDPQConnection, and dispatches each incoming
// message by its name to a registered handler.
//
// Invariants:
// - The set of live peers is touched only on the serial queue
//   "connection_queue".
// - A peer that goes away leaves the set before the server's disconnect
//   handler hears of it.
// - Once `shutdown` is called, new peers and messages from existing peers
//   are ignored; the listener and the existing connections stay open.
// - The listener's callback holds the server weakly. A peer's disconnect
//   handler holds the server until the peer is gone, so a server outlives
//   its connected peers.
//
// Threads: listener events arrive on the queue given at creation; each
// peer's messages arrive on that peer's own event queue, so handlers for
// different peers may run in parallel. Handlers may be registered from any
// thread.
#pragma once

#include "kx/export.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "kx/queue.h"

class KX_EXPORT KXDPQServer : public kx::Object {
  struct Passkey {};

 public:
  // Answers, when the message expects it, with `sendReply` on the message.
  using Handler = std::function<void(const std::shared_ptr<KXDPQConnection>& connection,
                                     const std::shared_ptr<KXDPQMessage>& message)>;
  using DisconnectHandler = std::function<void(const std::shared_ptr<KXDPQConnection>& connection)>;

  // A listener whose events arrive on `queue`; not listening yet.
  static std::shared_ptr<KXDPQServer> initListenerWithServiceName(std::string_view serviceName,
                                                                  std::shared_ptr<kx::Queue> queue);
  // Listener events arrive on the main queue, which stays available while
  // pool threads are busy.
  static std::shared_ptr<KXDPQServer> initListenerWithServiceName(std::string_view serviceName);

  ~KXDPQServer() override;

  // Takes the launcher's socket (LISTEN_FDS) or binds the service's socket.
  void startListening();

  // With a name, registers (or replaces) the handler for that name; with
  // nullopt, sets the default handler.
  void setHandlerForMessageName(std::optional<std::string> name, Handler handler);
  // The handler registered for `name`, else the default one; null when
  // there is neither.
  std::shared_ptr<const Handler> _handlerForMessageName(
      const std::optional<std::string>& name) const;

  // Ignores every later peer and message. Returns true.
  bool shutdown();
  bool isShutdown() const { return shutdown_.load(std::memory_order_acquire); }

  Handler defaultMessageHandler() const;
  void setDefaultMessageHandler(Handler handler);
  DisconnectHandler disconnectHandler() const;
  void setDisconnectHandler(DisconnectHandler handler);

  // The live peers, read on "connection_queue".
  std::vector<std::shared_ptr<KXDPQConnection>> connections() const;
  const std::shared_ptr<kx::Queue>& eventQueue() const { return eventQueue_; }
  // For an idle timer that an owner may arm; nothing here arms one.
  const std::shared_ptr<kx::Queue>& idleTimerQueue() const { return timerQueue_; }

  std::string className() const override { return "KXDPQServer"; }

  KXDPQServer(Passkey, std::shared_ptr<kx::Queue> queue);

 private:
  struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
  };

  std::shared_ptr<KXDPQServer> self();
  void _handleNewConnection(std::shared_ptr<kx::MessageConnection> peer);

  std::atomic<bool> shutdown_{false};

  mutable std::shared_mutex handlersMu_;
  // Guarded by handlersMu_; shared so that a lookup on the message path is
  // a reference count increment.
  std::unordered_map<std::string, std::shared_ptr<const Handler>, NameHash, std::equal_to<>>
      handlerMap_;
  std::shared_ptr<const Handler> defaultMessageHandler_;
  std::shared_ptr<const DisconnectHandler> disconnectHandler_;

  const std::shared_ptr<kx::Queue> connectionsQueue_;
  // Touched only on connectionsQueue_.
  std::unordered_set<std::shared_ptr<KXDPQConnection>> connections_;

  std::shared_ptr<kx::MessageConnection> conn_;
  const std::shared_ptr<kx::Queue> timerQueue_;
  const std::shared_ptr<kx::Queue> eventQueue_;
};
