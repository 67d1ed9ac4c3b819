// Connections of the inter-process message service: peer-to-peer AF_UNIX
// SOCK_SEQPACKET sockets carrying one dictionary per datagram.
//
// A connection is a client of a named service, a listener for one, or a peer
// that a listener accepted (delivered to the listener's event handler as an
// object of type Connection, not yet resumed). Events run on the
// connection's target queue, one at a time and in arrival order: received
// dictionaries, new peers (listeners), and errors.
//
// Error events and lifecycle:
// - Invalid: the service could not be reached, or the connection was
//   cancelled. It is always the last event; the event handler is released
//   right after it runs.
// - Interrupted: the peer went away after the connection was made, or
//   stopped reading while 256 datagrams or 16 MiB already waited for it (the
//   connection is then shut down). At most once; a later `cancel` still
//   delivers Invalid.
// - When the connection ends (interrupted, cancelled, unreachable), every
//   reply still awaited is answered with the error event on its reply
//   queue, so reply handlers always run exactly once and never leak.
// - After `cancel`, nothing more is sent and nothing more is delivered
//   except those errors and the final Invalid.
//
// Threads: sending never blocks. A send goes to the kernel directly from the
// calling thread when the socket has room and nothing is queued before it;
// otherwise it is queued and flushed when the socket becomes writable, in
// order. Each resumed connection has one reader thread that blocks in
// recvmsg and runs the event (or reply handler) synchronously on its target
// queue, which executes it on the reader thread itself when the queue is
// idle: a message costs one thread wake-up, like a bare socket. The reader
// only ever waits for a queue to finish work already running there.
// Consequently a handler must not wait for a reply on its own connection.
//
// A connection that is resumed and not yet ended keeps itself alive (its
// reader holds it); owners that want it gone call `cancel`. Handlers
// installed on a connection must hold their owner weakly.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/message/message_object.h"
#include "platform/message/peer_identity.h"
#include "kx/queue.h"

namespace kx {

class MessageConnection : public std::enable_shared_from_this<MessageConnection> {
 public:
  using EventHandler = std::function<void(const MessageObject& event)>;
  using ReplyHandler = std::function<void(const MessageObject& reply)>;

  // A client of the named service. It connects on `resume`; a service that
  // cannot be reached yields Invalid. `targetQueue` may be null if one is
  // set before `resume`.
  static std::shared_ptr<MessageConnection> CreateClient(std::string_view serviceName,
                                                         std::shared_ptr<Queue> targetQueue);
  // A listener for the named service. On `resume` it takes the socket that
  // a launcher passed (LISTEN_FDS), or binds the service's socket file
  // itself; failing both yields Invalid.
  static std::shared_ptr<MessageConnection> CreateListener(std::string_view serviceName,
                                                           std::shared_ptr<Queue> targetQueue);

  ~MessageConnection();
  MessageConnection(const MessageConnection&) = delete;
  MessageConnection& operator=(const MessageConnection&) = delete;

  // Both only before `resume`.
  void setTargetQueue(std::shared_ptr<Queue> queue);
  void setEventHandler(EventHandler handler);
  // Starts delivering events (and, for a client, connects). Once only.
  void resume();

  // Sends `message` one-way.
  void send(const MessageDictionary& message);
  // Sends `message` and runs `handler` on `replyQueue` (the target queue
  // when null) with the reply dictionary, or with an error event when the
  // connection ends first or the message cannot be sent.
  void sendWithReply(const MessageDictionary& message, std::shared_ptr<Queue> replyQueue,
                     ReplyHandler handler);
  // Runs `barrier` on the target queue once every message sent before it
  // has been handed to the kernel (or dropped because the connection ended).
  void sendBarrier(std::function<void()> barrier);
  // Ends the connection: queued messages are dropped, awaited replies are
  // answered with Invalid, and Invalid is delivered last. Idempotent.
  void cancel();

  // The service's name (also for peers a listener accepted).
  const std::string& serviceName() const;
  bool isListener() const;
  // The kernel's account of the peer: read when a listener accepts it, or
  // on first request for a client. Nullopt while not connected.
  std::optional<PeerIdentity> peerIdentity();
  // Derived from the peer identity (see peer_identity.h).
  std::optional<std::string> copyPeerBundleIdentifier();

  struct State;

 private:
  enum class Role { Client, Listener, Peer };
  MessageConnection(Role role, std::string_view serviceName, std::shared_ptr<Queue> queue);

  std::unique_ptr<State> state_;
};

// Test seam: runs on a client's reader thread before each connection attempt
// it retries (while the service's backlog is full), after the attempt's check
// for cancellation and without any lock held. Null removes it.
void SetConnectRetryHookForTesting(std::function<void()> hook);

}  // namespace kx
