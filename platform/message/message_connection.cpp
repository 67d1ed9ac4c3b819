#include "platform/message/message_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kx/assert.h"
#include "kx/log.h"
#include "platform/message/message_codec.h"
#include "platform/message/message_socket.h"
#include "platform/message/message_write_waiter.h"

namespace kx {
namespace {

// SCM_MAX_FD: the most descriptors one datagram can carry.
constexpr size_t kMaxReceivedDescriptors = 253;
// Pause between connection attempts while a service's backlog is full.
constexpr auto kConnectRetryDelay = std::chrono::milliseconds(10);
// Pause after the process ran out of descriptors while accepting.
constexpr auto kAcceptRetryDelay = std::chrono::milliseconds(100);
// What may wait in this process for a peer that does not read: each queued
// datagram holds duplicates of its descriptors and a copy of its bytes.
// Beyond either bound the peer counts as lost.
constexpr size_t kMaxQueuedDatagrams = 256;
constexpr uint64_t kMaxQueuedBytes = uint64_t{16} << 20;

std::mutex& ConnectRetryHookMutex() {
  static auto* mutex = new std::mutex();
  return *mutex;
}
// Guarded by ConnectRetryHookMutex().
std::function<void()>& ConnectRetryHook() {
  static auto* hook = new std::function<void()>();
  return *hook;
}

void RunConnectRetryHook() {
  std::function<void()> hook;
  {
    std::lock_guard lock(ConnectRetryHookMutex());
    hook = ConnectRetryHook();
  }
  if (hook) hook();
}

// Hands one datagram to the kernel without waiting. 0 or an errno value.
int SendDatagram(int fd, std::span<const uint8_t> first, std::span<const uint8_t> second,
                 std::span<const int> descriptors) {
  iovec iov[2] = {{const_cast<uint8_t*>(first.data()), first.size()},
                  {const_cast<uint8_t*>(second.data()), second.size()}};
  msghdr msg{};
  msg.msg_iov = iov;
  msg.msg_iovlen = second.empty() ? 1 : 2;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxReceivedDescriptors)];
  if (!descriptors.empty()) {
    const size_t bytes = descriptors.size() * sizeof(int);
    std::memset(control, 0, CMSG_SPACE(bytes));  // padding goes to the kernel too
    msg.msg_control = control;
    msg.msg_controllen = CMSG_SPACE(bytes);
    cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(bytes);
    std::memcpy(CMSG_DATA(cmsg), descriptors.data(), bytes);
  }
  for (;;) {
    if (sendmsg(fd, &msg, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return 0;
    if (errno != EINTR) return errno == EWOULDBLOCK ? EAGAIN : errno;
  }
}

bool PeerGone(int error) { return error == EPIPE || error == ECONNRESET || error == ENOTCONN; }

// After recvmsg returned 0: true when that was the end of the stream rather
// than an empty datagram.
bool HungUp(int fd) {
  pollfd p{fd, POLLIN | POLLRDHUP, 0};
  return poll(&p, 1, 0) < 0 || (p.revents & (POLLHUP | POLLRDHUP | POLLERR));
}

void CloseAll(std::span<const int> fds) {
  for (int fd : fds) ::close(fd);
}

}  // namespace

struct MessageConnection::State {
  // A reply still awaited, by serial number.
  struct PendingReply {
    std::shared_ptr<Queue> queue;  // null: the target queue
    ReplyHandler handler;
  };
  // A datagram waiting for room in the socket (or for the connection), or a
  // barrier mark.
  struct Queued {
    std::vector<uint8_t> bytes;
    std::vector<ScopedFd> descriptors;
    uint64_t heldBytes = 0;  // counted in `queuedBytes`
    uint64_t replySerial = 0;
    std::function<void()> barrier;
  };
  // How a reader ended.
  enum class End { PeerLost, Unreachable };

  State(Role r, std::string_view n, std::shared_ptr<Queue> q)
      : role(r), name(n), target(std::move(q)) {}

  const Role role;
  const std::string name;
  // Set before `resume`; afterwards read-only.
  std::shared_ptr<Queue> target;
  // Set before `resume`; afterwards touched only by jobs on the target queue.
  EventHandler handler;
  // Mirrors `cancelled` for delivery jobs, which must not take `mu`.
  std::atomic<bool> cancelledFlag{false};

  std::mutex mu;
  // Guarded by `mu`.
  ScopedFd fd;    // client and peer: closed with the connection
  ScopedFd wake;  // listener: eventfd that stops the accept loop
  // Listener: the listening socket, owned by the accept loop once it runs,
  // and the socket file when this process bound it (not for a launcher's).
  ScopedFd listening;
  std::optional<ServiceListener> bound;
  bool resumed = false;
  bool connected = false;
  bool readerActive = false;
  bool cancelled = false;
  bool ended = false;  // nothing more is sent; replies are answered with endError
  bool invalidDelivered = false;
  MessageError endError = MessageError::Invalid;
  uint64_t nextSerial = 1;
  std::unordered_map<uint64_t, PendingReply> pending;
  std::deque<Queued> queued;
  // The datagrams in `queued` (barrier marks aside) and the bytes they hold.
  size_t queuedDatagrams = 0;
  uint64_t queuedBytes = 0;
  bool interruptReported = false;
  bool writeWaitArmed = false;  // registered with the WritableWaiter
  std::optional<PeerIdentity> identity;

  const std::shared_ptr<Queue>& targetLocked() {
    if (!target) target = Queue::Create("com.orvex.message." + name);
    return target;
  }

  // Answers every awaited reply with `error`, runs barrier marks, drops
  // queued datagrams. Jobs are posted; nothing runs under the lock.
  void drainLocked(MessageError error) {
    const std::shared_ptr<Queue>& queue = targetLocked();
    for (auto& [serial, reply] : pending) {
      (reply.queue ? reply.queue : queue)->async([handler = std::move(reply.handler), error] {
        handler(MessageObject::Error(error));
      });
    }
    pending.clear();
    for (Queued& q : queued)
      if (q.barrier) queue->async(std::move(q.barrier));
    queued.clear();
    queuedDatagrams = 0;
    queuedBytes = 0;
    if (writeWaitArmed) WritableWaiter::Shared().cancel(fd.get());
    writeWaitArmed = false;
  }

  void answerLocked(uint64_t serial, MessageError error) {
    auto it = pending.find(serial);
    if (it == pending.end()) return;
    (it->second.queue ? it->second.queue : targetLocked())
        ->async([handler = std::move(it->second.handler), error] {
          handler(MessageObject::Error(error));
        });
    pending.erase(it);
  }

  // A send failed for a reason other than a full socket.
  void sendFailedLocked(int error, uint64_t replySerial) {
    // A vanished peer is noticed by the reader, which then answers every
    // awaited reply; anything else affects this datagram only.
    if (PeerGone(error)) return;
    KXLOG(3, "Cannot send message on %s: %s", name, std::strerror(error));
    answerLocked(replySerial, MessageError::Interrupted);
  }

  // The Interrupted event, at most once per connection.
  void reportInterruptedLocked(const std::shared_ptr<MessageConnection>& self) {
    if (std::exchange(interruptReported, true)) return;
    targetLocked()->async([self] {
      State& s = *self->state_;
      if (!s.cancelledFlag.load(std::memory_order_acquire) && s.handler)
        s.handler(MessageObject::Error(MessageError::Interrupted));
    });
  }

  // The peer stopped reading: the connection ends as if it had gone. The
  // reader wakes up on the shutdown and finishes without a second report.
  void abandonSlowPeerLocked(const std::shared_ptr<MessageConnection>& self) {
    KXLOG(3, "Peer of %s does not read: %zu messages (%llu bytes) wait to be sent", name,
          queuedDatagrams, static_cast<unsigned long long>(queuedBytes));
    ended = true;
    endError = MessageError::Interrupted;
    drainLocked(MessageError::Interrupted);
    reportInterruptedLocked(self);
    if (fd) shutdown(fd.get(), SHUT_RDWR);
  }

  void enqueueLocked(const std::shared_ptr<MessageConnection>& self, const OutgoingMessage& out,
                     uint64_t replySerial) {
    // A single datagram larger than the byte bound may still wait alone.
    if (queuedDatagrams >= kMaxQueuedDatagrams ||
        (queuedDatagrams > 0 && queuedBytes + out.heldBytes() > kMaxQueuedBytes)) {
      abandonSlowPeerLocked(self);
      return;
    }
    Queued q;
    q.replySerial = replySerial;
    q.heldBytes = out.heldBytes();
    q.bytes.reserve(out.header().size() + out.body().size());
    q.bytes.insert(q.bytes.end(), out.header().begin(), out.header().end());
    q.bytes.insert(q.bytes.end(), out.body().begin(), out.body().end());
    for (int d : out.descriptors()) {
      ScopedFd copy(fcntl(d, F_DUPFD_CLOEXEC, 0));
      if (!copy) {
        sendFailedLocked(errno, replySerial);
        return;
      }
      q.descriptors.push_back(std::move(copy));
    }
    ++queuedDatagrams;
    queuedBytes += q.heldBytes;
    queued.push_back(std::move(q));
    if (connected) armWriteWaitLocked(self);
  }

  // Sends queued datagrams in order until the socket is full.
  void flushLocked(const std::shared_ptr<MessageConnection>& self) {
    while (!queued.empty() && !ended) {
      Queued& q = queued.front();
      if (q.barrier) {
        targetLocked()->async(std::move(q.barrier));
        queued.pop_front();
        continue;
      }
      int fds[kMaxReceivedDescriptors];
      for (size_t i = 0; i < q.descriptors.size(); ++i) fds[i] = q.descriptors[i].get();
      int error = SendDatagram(fd.get(), q.bytes, {}, {fds, q.descriptors.size()});
      if (error == EAGAIN) {
        armWriteWaitLocked(self);
        return;
      }
      if (error) sendFailedLocked(error, q.replySerial);
      --queuedDatagrams;
      queuedBytes -= q.heldBytes;
      queued.pop_front();
    }
  }

  void armWriteWaitLocked(const std::shared_ptr<MessageConnection>& self) {
    if (writeWaitArmed || ended) return;
    writeWaitArmed = WritableWaiter::Shared().watch(fd.get(), [self] {
      State& s = *self->state_;
      std::lock_guard lock(s.mu);
      s.writeWaitArmed = false;
      s.flushLocked(self);
    });
    if (!writeWaitArmed) KXLOG(3, "Cannot wait for room on %s", name);
  }

  void send(const std::shared_ptr<MessageConnection>& self, const MessageDictionary& message,
            std::shared_ptr<Queue> replyQueue, ReplyHandler replyHandler) {
    OutgoingMessage out;
    const bool encoded = role != Role::Listener && out.encode(message);
    std::lock_guard lock(mu);
    if (!encoded || ended) {
      if (role == Role::Listener)
        KXLOG(3, "Cannot send a message on listener %s", name);
      else if (ended)
        KXLOG(7, "Dropping message sent on ended connection %s", name);
      if (replyHandler) {
        (replyQueue ? replyQueue : targetLocked())
            ->async([handler = std::move(replyHandler),
                     error = ended ? endError : MessageError::Invalid] {
              handler(MessageObject::Error(error));
            });
      }
      return;
    }
    uint8_t flags = 0;
    uint64_t serial = 0;
    if (replyHandler) {
      flags |= MessageHeader::kWantsReply;
      serial = nextSerial++;
      pending.emplace(serial, PendingReply{std::move(replyQueue), std::move(replyHandler)});
    }
    if (message.replySerial()) flags |= MessageHeader::kIsReply;
    out.setHeader(flags, serial, message.replySerial());
    if (connected && queued.empty()) {
      const int error = SendDatagram(fd.get(), out.header(), out.body(), out.descriptors());
      if (error == 0) return;
      if (error != EAGAIN) {
        sendFailedLocked(error, serial);
        return;
      }
    }
    enqueueLocked(self, out, serial);
  }

  // Runs `handler(object)` on `queue` from the reader thread: in place once
  // the queue is free, so a message costs no thread hop beyond the reader's
  // own wake-up (the closure captures references only, so it needs no heap
  // either). The main queue runs only where the application drains it, so
  // work for it is posted instead.
  template <class Handler>
  static void RunFromReader(const std::shared_ptr<Queue>& queue, const Handler& handler,
                            const MessageObject& object) {
    if (queue != Queue::Main()) {
      queue->sync([&handler, &object] { handler(object); });
      return;
    }
    queue->async([handler, object] { handler(object); });
  }

  void deliverEvent(const std::shared_ptr<MessageConnection>& self, const MessageObject& event) {
    // `self` keeps the state alive for a posted delivery.
    auto deliver = [self](const MessageObject& e) {
      State& s = *self->state_;
      if (!s.cancelledFlag.load(std::memory_order_acquire) && s.handler) s.handler(e);
    };
    RunFromReader(target, deliver, event);
  }

  // The last event: Invalid, after which the handler is released.
  void postFinalLocked(const std::shared_ptr<MessageConnection>& self) {
    invalidDelivered = true;
    targetLocked()->async([self] {
      EventHandler last = std::move(self->state_->handler);
      self->state_->handler = nullptr;
      if (last) last(MessageObject::Error(MessageError::Invalid));
    });
  }

  void finish(const std::shared_ptr<MessageConnection>& self, End how) {
    bool interrupted;
    {
      std::lock_guard lock(mu);
      interrupted = how == End::PeerLost && !cancelled;
      if (!ended) {
        ended = true;
        endError = interrupted ? MessageError::Interrupted : MessageError::Invalid;
      }
      drainLocked(endError);
      if (interrupted) reportInterruptedLocked(self);
      readerActive = false;
      if ((cancelled || how == End::Unreachable) && !invalidDelivered) postFinalLocked(self);
    }
  }

  bool connectWithRetry() {
    for (;;) {
      {
        std::lock_guard lock(mu);
        if (cancelled) return false;
      }
      RunConnectRetryHook();
      int error = 0;
      ScopedFd socket = ConnectToService(name, &error);
      if (socket) {
        std::lock_guard lock(mu);
        // A cancel while connecting found no socket to shut down; a socket
        // stored now would leave the reader blocked on a live peer and the
        // end never reported.
        if (cancelled) return false;
        fd = std::move(socket);
        connected = true;
        return true;
      }
      if (error != EAGAIN) {
        KXLOG(6, "Cannot connect to service %s: %s", name, std::strerror(error));
        return false;
      }
      std::this_thread::sleep_for(kConnectRetryDelay);
    }
  }

  void handleDatagram(const std::shared_ptr<MessageConnection>& self,
                      std::span<const uint8_t> bytes, std::span<const int> descriptors) {
    const char* reason = nullptr;
    std::optional<ReceivedMessage> message = DecodeMessage(bytes, descriptors, &reason);
    if (!message) {
      KXLOG(3, "Dropping malformed message on %s: %s", name, reason);
      return;
    }
    MessageDictionary& body = *message->body;
    body.remote_ = self;
    if (message->header.flags & MessageHeader::kWantsReply)
      body.requestSerial_ = message->header.serial;
    const MessageObject object = MessageObject::Dictionary(std::move(message->body));
    if (!(message->header.flags & MessageHeader::kIsReply)) {
      deliverEvent(self, object);
      return;
    }
    PendingReply reply;
    {
      std::lock_guard lock(mu);
      auto it = pending.find(message->header.replyTo);
      if (it == pending.end()) {
        KXLOG(6, "Dropping reply %llu that nobody awaits on %s",
              static_cast<unsigned long long>(message->header.replyTo), name);
        return;
      }
      reply = std::move(it->second);
      pending.erase(it);
    }
    RunFromReader(reply.queue ? reply.queue : target, reply.handler, object);
  }

  void readLoop(const std::shared_ptr<MessageConnection>& self) {
    const int socket = fd.get();  // stays open while the connection lives
    std::vector<uint8_t> buffer(kMessageInlineLimit);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxReceivedDescriptors)];
    for (;;) {
      iovec iov{buffer.data(), buffer.size()};
      msghdr msg{};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      const ssize_t n = recvmsg(socket, &msg, MSG_CMSG_CLOEXEC);
      if (n < 0) {
        if (errno == EINTR) continue;
        // The socket is meant to block; should anything sharing its file
        // description have made it non-blocking, wait for data instead.
        if (errno == EAGAIN) {
          pollfd p{socket, POLLIN, 0};
          poll(&p, 1, -1);
          continue;
        }
        return;
      }
      int fds[kMaxReceivedDescriptors];
      size_t count = 0;
      for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        const size_t m = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < m && count < kMaxReceivedDescriptors; ++i)
          std::memcpy(&fds[count++], CMSG_DATA(c) + i * sizeof(int), sizeof(int));
      }
      if (n == 0 && count == 0 && HungUp(socket)) return;
      if (cancelledFlag.load(std::memory_order_acquire)) {
        CloseAll({fds, count});
        continue;
      }
      if (msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) {
        KXLOG(3, "Dropping malformed message on %s: %s", name,
              (msg.msg_flags & MSG_TRUNC) ? "datagram too large" : "descriptors truncated");
        CloseAll({fds, count});
        continue;
      }
      handleDatagram(self, {buffer.data(), static_cast<size_t>(n)}, {fds, count});
    }
  }

  void runClientOrPeer(const std::shared_ptr<MessageConnection>& self) {
    pthread_setname_np(pthread_self(), "kx-msg-reader");
    bool ready;
    {
      std::lock_guard lock(mu);
      ready = connected;
    }
    if (!ready) {
      if (!connectWithRetry()) return finish(self, End::Unreachable);
      std::lock_guard lock(mu);
      flushLocked(self);
    }
    readLoop(self);
    finish(self, End::PeerLost);
  }

  void runListener(const std::shared_ptr<MessageConnection>& self) {
    pthread_setname_np(pthread_self(), "kx-msg-listen");
    int wakeFd;
    {
      std::lock_guard lock(mu);
      wakeFd = wake.get();
    }
    for (;;) {
      pollfd p[2] = {{listening.get(), POLLIN, 0}, {wakeFd, POLLIN, 0}};
      if (poll(p, 2, -1) < 0) {
        if (errno == EINTR) continue;
        KXLOG(3, "Listener for %s failed: %s", name, std::strerror(errno));
        break;
      }
      if (p[1].revents || cancelledFlag.load(std::memory_order_acquire)) break;
      ScopedFd accepted(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!accepted) {
        const int error = errno;
        if (error == EAGAIN || error == EINTR || error == ECONNABORTED || error == EPROTO) continue;
        KXLOG(3, "Cannot accept on %s: %s", name, std::strerror(error));
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
          std::this_thread::sleep_for(kAcceptRetryDelay);
          continue;
        }
        break;
      }
      std::shared_ptr<MessageConnection> peer(new MessageConnection(Role::Peer, name, nullptr));
      State& ps = *peer->state_;
      ps.identity = ReadPeerIdentity(accepted.get());
      ps.fd = std::move(accepted);
      ps.connected = true;
      deliverEvent(self, MessageObject::Connection(std::move(peer)));
    }
    // Closing before the file goes: new clients are refused at once instead
    // of waiting in a backlog that nobody serves.
    listening.reset();
    if (bound) RemoveServiceSocketFile(*bound);
    bound.reset();
    finish(self, End::Unreachable);
  }
};

MessageConnection::MessageConnection(Role role, std::string_view serviceName,
                                     std::shared_ptr<Queue> queue)
    : state_(std::make_unique<State>(role, serviceName, std::move(queue))) {}

MessageConnection::~MessageConnection() = default;

std::shared_ptr<MessageConnection> MessageConnection::CreateClient(
    std::string_view serviceName, std::shared_ptr<Queue> targetQueue) {
  return std::shared_ptr<MessageConnection>(
      new MessageConnection(Role::Client, serviceName, std::move(targetQueue)));
}

std::shared_ptr<MessageConnection> MessageConnection::CreateListener(
    std::string_view serviceName, std::shared_ptr<Queue> targetQueue) {
  return std::shared_ptr<MessageConnection>(
      new MessageConnection(Role::Listener, serviceName, std::move(targetQueue)));
}

void MessageConnection::setTargetQueue(std::shared_ptr<Queue> queue) {
  std::lock_guard lock(state_->mu);
  KX_ASSERT(!state_->resumed, "Target queue set after resume");
  if (!state_->resumed) state_->target = std::move(queue);
}

void MessageConnection::setEventHandler(EventHandler handler) {
  std::lock_guard lock(state_->mu);
  KX_ASSERT(!state_->resumed, "Event handler set after resume");
  if (!state_->resumed) state_->handler = std::move(handler);
}

void MessageConnection::resume() {
  State& s = *state_;
  auto self = shared_from_this();
  std::lock_guard lock(s.mu);
  if (s.resumed) {
    KXLOG(3, "Connection %s resumed twice", s.name);
    return;
  }
  s.resumed = true;
  s.targetLocked();
  if (s.cancelled) return;
  if (s.role == Role::Client) {
    // The first attempt happens here, so that messages sent right after
    // resume go straight to the kernel; a full backlog is retried by the
    // reader, an unreachable service ends the connection.
    int error = 0;
    s.fd = ConnectToService(s.name, &error);
    if (s.fd) {
      s.connected = true;
      s.flushLocked(self);
    } else if (error != EAGAIN) {
      KXLOG(6, "Cannot connect to service %s: %s", s.name, std::strerror(error));
      s.ended = true;
      s.endError = MessageError::Invalid;
      s.drainLocked(MessageError::Invalid);
      s.postFinalLocked(self);
      return;
    }
  }
  if (s.role == Role::Listener) {
    // Listening starts here, so clients can connect once resume returns.
    std::string error = "no eventfd";
    s.wake.reset(eventfd(0, EFD_CLOEXEC));
    if (s.wake) {
      s.listening = TakeActivationSocket(s.name);
      if (!s.listening && (s.bound = ListenOnService(s.name, &error))) {
        s.listening = std::move(s.bound->fd);
      }
    }
    if (!s.listening) {
      KXLOG(3, "Cannot listen on service %s: %s", s.name, error);
      s.ended = true;
      s.postFinalLocked(self);
      return;
    }
  }
  s.readerActive = true;
  try {
    std::thread([self, listener = s.role == Role::Listener] {
      if (listener)
        self->state_->runListener(self);
      else
        self->state_->runClientOrPeer(self);
    }).detach();
  } catch (const std::system_error& e) {
    KXLOG(3, "Cannot start reading connection %s: %s", s.name, e.what());
    s.readerActive = false;
    s.ended = true;
    s.drainLocked(MessageError::Invalid);
    s.postFinalLocked(self);
  }
}

void MessageConnection::send(const MessageDictionary& message) {
  state_->send(shared_from_this(), message, nullptr, nullptr);
}

void MessageConnection::sendWithReply(const MessageDictionary& message,
                                      std::shared_ptr<Queue> replyQueue, ReplyHandler handler) {
  KX_ASSERT(static_cast<bool>(handler), "Reply handler missing");
  if (!handler) return send(message);
  state_->send(shared_from_this(), message, std::move(replyQueue), std::move(handler));
}

void MessageConnection::sendBarrier(std::function<void()> barrier) {
  State& s = *state_;
  std::lock_guard lock(s.mu);
  if (s.queued.empty() || s.ended) {
    s.targetLocked()->async(std::move(barrier));
    return;
  }
  State::Queued mark;
  mark.barrier = std::move(barrier);
  s.queued.push_back(std::move(mark));
}

void MessageConnection::cancel() {
  State& s = *state_;
  auto self = shared_from_this();
  std::lock_guard lock(s.mu);
  if (s.cancelled) return;
  s.cancelled = true;
  s.cancelledFlag.store(true, std::memory_order_release);
  s.ended = true;
  s.endError = MessageError::Invalid;
  s.drainLocked(MessageError::Invalid);
  // The peer sees the end at once; a reader blocked in recvmsg wakes up.
  if (s.fd) shutdown(s.fd.get(), SHUT_RDWR);
  if (s.wake) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(s.wake.get(), &one, sizeof one);
  }
  // A running reader delivers the final event when it ends.
  if (!s.readerActive && !s.invalidDelivered) s.postFinalLocked(self);
}

const std::string& MessageConnection::serviceName() const { return state_->name; }

bool MessageConnection::isListener() const { return state_->role == Role::Listener; }

std::optional<PeerIdentity> MessageConnection::peerIdentity() {
  State& s = *state_;
  std::lock_guard lock(s.mu);
  if (!s.identity && s.connected && s.fd) s.identity = ReadPeerIdentity(s.fd.get());
  return s.identity;
}

std::optional<std::string> MessageConnection::copyPeerBundleIdentifier() {
  std::optional<PeerIdentity> identity = peerIdentity();
  if (!identity) return std::nullopt;
  return PeerBundleIdentifier(*identity);
}

void SetConnectRetryHookForTesting(std::function<void()> hook) {
  std::lock_guard lock(ConnectRetryHookMutex());
  ConnectRetryHook() = std::move(hook);
}

}  // namespace kx
