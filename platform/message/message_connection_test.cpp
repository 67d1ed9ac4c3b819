#include "platform/message/message_connection.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <future>
#include <random>
#include <sstream>
#include <thread>

#include "platform/process/helper_process_testing.h"
#include "platform/message/message_codec.h"
#include "platform/message/message_socket.h"
#include "platform/message/message_testing.h"
#include "platform/message/message_write_waiter.h"
#include "platform/message/shared_memory.h"

namespace kx {
namespace {

using namespace std::chrono_literals;
constexpr auto kTimeout = 10s;

// Events of one connection, as its handler saw them.
class Recorder {
 public:
  void add(const MessageObject& event) {
    std::lock_guard lock(mu_);
    events_.push_back(event);
    cv_.notify_all();
  }
  bool waitFor(size_t count) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, kTimeout, [&] { return events_.size() >= count; });
  }
  std::vector<MessageObject> events() {
    std::lock_guard lock(mu_);
    return events_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<MessageObject> events_;
};

std::shared_ptr<MessageDictionary> Dict(
    std::initializer_list<std::pair<std::string_view, MessageObject>> entries) {
  auto d = MessageDictionary::Create();
  for (const auto& [key, value] : entries) d->set(key, value);
  return d;
}

std::shared_ptr<MessageDictionary> Op(std::string_view op) {
  return Dict({{"op", MessageObject::String(op)}});
}

MessageObject Request(MessageConnection& connection, const MessageDictionary& request,
                      std::shared_ptr<Queue> replyQueue = nullptr) {
  auto promise = std::make_shared<std::promise<MessageObject>>();
  std::future<MessageObject> future = promise->get_future();
  connection.sendWithReply(request, std::move(replyQueue),
                           [promise](const MessageObject& reply) { promise->set_value(reply); });
  if (future.wait_for(kTimeout) != std::future_status::ready) {
    ADD_FAILURE() << "no reply";
    return MessageObject();
  }
  return future.get();
}

struct Client {
  explicit Client(std::string_view service, bool resume = true)
      : connection(MessageConnection::CreateClient(service, Queue::Create("test.client"))) {
    connection->setEventHandler([events = events](const MessageObject& e) { events->add(e); });
    if (resume) connection->resume();
  }
  ~Client() { connection->cancel(); }
  std::shared_ptr<Recorder> events = std::make_shared<Recorder>();
  std::shared_ptr<MessageConnection> connection;
};

// The parent of `pid`, from /proc/<pid>/stat ("pid (comm) state ppid ...").
pid_t ParentOf(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return -1;
  char state;
  int parent = -1;
  std::istringstream(text.substr(close + 1)) >> state >> parent;
  return parent;
}

// `message_peer serve <service>` in a process of its own.
struct PeerServer {
  explicit PeerServer(const std::string& service) : process("message_peer", {"serve", service}) {
    EXPECT_EQ(process.ReadLine(), "ready");
  }
  test::HelperProcess process;
};

// A listener in this process; its peers' messages land in `received`, in
// order, after `onMessage` (when given) has run on each.
struct LocalServer {
  using Handler = std::function<void(const MessageObject&)>;
  explicit LocalServer(std::string_view service, Handler onMessage = {})
      : listener(MessageConnection::CreateListener(service, Queue::Create("test.listener"))) {
    listener->setEventHandler([received = received, onMessage](const MessageObject& e) {
      std::shared_ptr<MessageConnection> peer = e.connection();
      if (!peer) return;
      peer->setTargetQueue(Queue::Create("test.peer"));
      // Recorded messages point back at the peer, so the peer's handler
      // (which holds the recorder) would keep it alive forever: like any
      // owner, the server cancels a peer that has gone, which releases the
      // handler after the final Invalid.
      std::weak_ptr<MessageConnection> weakPeer = peer;
      peer->setEventHandler([received, onMessage, weakPeer](const MessageObject& m) {
        if (m.dictionary() && onMessage) onMessage(m);
        received->add(m);
        if (m.errorValue() == MessageError::Interrupted)
          if (auto self = weakPeer.lock()) self->cancel();
      });
      peer->resume();
    });
    listener->resume();
  }
  ~LocalServer() { listener->cancel(); }
  std::shared_ptr<Recorder> received = std::make_shared<Recorder>();
  std::shared_ptr<MessageConnection> listener;
};

std::vector<std::string> Strings(const MessageObject& array) {
  std::vector<std::string> out;
  if (const MessageArray* a = array.array())
    for (const MessageObject& item : a->items()) out.emplace_back(item.stringValue().value_or("?"));
  return out;
}

TEST(MessageConnectionTest, OneWayMessagesAndRequestsAcrossProcesses) {
  PeerServer server("svc");
  Client client("svc");
  for (const char* value : {"one", "two", "three"})
    client.connection->send(
        *Dict({{"op", MessageObject::String("record")}, {"value", MessageObject::String(value)}}));
  MessageObject recorded = Request(*client.connection, *Op("recorded"));
  ASSERT_NE(recorded.dictionary(), nullptr);
  EXPECT_EQ(Strings(*recorded.dictionary()->find("values")),
            (std::vector<std::string>{"one", "two", "three"}));

  // Every value type survives the trip there and back, a body too large
  // for one datagram included (out of line both ways).
  auto nested = Dict({{"n", MessageObject::Int64(-9)}});
  auto list = MessageArray::Create();
  list->append(MessageObject::Dictionary(nested));
  list->append(MessageObject::Double(2.5));
  std::vector<uint8_t> big(300 * 1024);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i ^ (i >> 8));
  auto request = Dict({{"op", MessageObject::String("echo")},
                       {"string", MessageObject::String("h\xC3\xA9llo")},
                       {"empty", MessageObject::Data(std::vector<uint8_t>{})},
                       {"big", MessageObject::Data(big)},
                       {"int", MessageObject::Int64(-1)},
                       {"uint", MessageObject::UInt64(1ull << 63)},
                       {"bool", MessageObject::Bool(false)},
                       {"date", MessageObject::Date(Date{123.5})},
                       {"uuid", MessageObject::Uuid({9, 8, 7})},
                       {"null", MessageObject()},
                       {"list", MessageObject::Array(list)}});
  MessageObject echoed = Request(*client.connection, *request);
  ASSERT_NE(echoed.dictionary(), nullptr);
  const MessageDictionary& reply = *echoed.dictionary();
  for (const auto& entry : request->entries()) {
    if (entry.key == "op") continue;
    const MessageObject* back = reply.find(entry.key);
    ASSERT_NE(back, nullptr) << entry.key;
    EXPECT_EQ(*back, entry.value) << entry.key;
  }
  EXPECT_NE(reply.uint64("pid"), static_cast<uint64_t>(getpid()));
  EXPECT_FALSE(reply.expectsReply());

  // A descriptor reaches the other process.
  int pipeFds[2];
  ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
  ScopedFd readEnd(pipeFds[0]);
  Request(*client.connection, *Dict({{"op", MessageObject::String("write-fd")},
                                     {"fd", MessageObject::FileDescriptor(ScopedFd(pipeFds[1]))}}));
  char hello[5] = {};
  EXPECT_EQ(read(readEnd.get(), hello, sizeof hello), 5);
  EXPECT_EQ(std::string_view(hello, 5), "hello");
}

TEST(MessageConnectionTest, SharedMemoryArrivesWithItsDeclaredLength) {
  PeerServer server("svc");
  Client client("svc");

  const size_t length = 2 * PageSize() + 100;
  void* region = SharedMemoryAllocator::Allocate(length);
  ASSERT_NE(region, nullptr);
  uint64_t expectedSum = 0;
  for (size_t i = 0; i < length; ++i) {
    static_cast<uint8_t*>(region)[i] = static_cast<uint8_t>(i % 251);
    expectedSum += i % 251;
  }
  MessageObject checked = Request(
      *client.connection, *Dict({{"op", MessageObject::String("check-shmem")},
                                 {"region", *MessageObject::SharedMemory(region, length)}}));
  SharedMemoryAllocator::Free(region);
  ASSERT_NE(checked.dictionary(), nullptr);
  EXPECT_EQ(checked.dictionary()->uint64("length"), length);
  EXPECT_EQ(checked.dictionary()->uint64("sum"), expectedSum);

  MessageObject made =
      Request(*client.connection, *Dict({{"op", MessageObject::String("make-shmem")},
                                         {"length", MessageObject::UInt64(5000)}}));
  ASSERT_NE(made.dictionary(), nullptr);
  const MessageObject* received = made.dictionary()->find("region");
  ASSERT_NE(received, nullptr);
  MessageSharedMemory* memory = received->sharedMemory();
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(memory->length(), 5000u);
  bool matches = true;
  for (size_t i = 0; i < 5000; ++i) matches &= memory->data()[i] == static_cast<uint8_t>(i * 7 + 1);
  EXPECT_TRUE(matches);
}

TEST(MessageConnectionTest, KilledServerAnswersPendingRepliesAndInterruptsOnce) {
  PeerServer server("svc");
  Client client("svc");
  auto replies = std::make_shared<Recorder>();
  auto replyQueue = Queue::Create("test.replies");
  for (int i = 0; i < 3; ++i) {
    client.connection->sendWithReply(*Op("hang"), replyQueue,
                                     [replies, replyQueue](const MessageObject& r) {
                                       EXPECT_TRUE(replyQueue->isCurrent());
                                       replies->add(r);
                                     });
  }
  // One connection delivers in order: once this is answered, the server
  // holds the three requests it will never answer.
  MessageObject echoed = Request(*client.connection, *Op("echo"));
  ASSERT_NE(echoed.dictionary(), nullptr);
  ASSERT_EQ(kill(static_cast<pid_t>(*echoed.dictionary()->uint64("pid")), SIGKILL), 0);

  ASSERT_TRUE(replies->waitFor(3));
  for (const MessageObject& r : replies->events())
    EXPECT_EQ(r.errorValue(), MessageError::Interrupted);
  ASSERT_TRUE(client.events->waitFor(1));
  EXPECT_EQ(Request(*client.connection, *Op("echo")).errorValue(), MessageError::Interrupted);

  client.connection->cancel();
  ASSERT_TRUE(client.events->waitFor(2));
  std::this_thread::sleep_for(50ms);
  std::vector<MessageObject> events = client.events->events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].errorValue(), MessageError::Interrupted);
  EXPECT_EQ(events[1].errorValue(), MessageError::Invalid);
  EXPECT_EQ(replies->events().size(), 3u);
}

TEST(MessageConnectionTest, MissingServiceIsInvalid) {
  Client client("missing", /*resume=*/false);
  auto early = std::make_shared<Recorder>();
  client.connection->sendWithReply(*Op("echo"), nullptr,
                                   [early](const MessageObject& r) { early->add(r); });
  client.connection->resume();
  ASSERT_TRUE(client.events->waitFor(1));
  EXPECT_EQ(client.events->events()[0].errorValue(), MessageError::Invalid);
  ASSERT_TRUE(early->waitFor(1));
  EXPECT_EQ(early->events()[0].errorValue(), MessageError::Invalid);
  EXPECT_EQ(Request(*client.connection, *Op("echo")).errorValue(), MessageError::Invalid);
  client.connection->cancel();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(client.events->events().size(), 1u);
}

TEST(MessageConnectionTest, NothingIsSentAfterCancel) {
  PeerServer server("svc");
  {
    Client client("svc");
    auto record = [](const char* value) {
      return Dict(
          {{"op", MessageObject::String("record")}, {"value", MessageObject::String(value)}});
    };
    client.connection->send(*record("before"));
    client.connection->cancel();
    client.connection->send(*record("after"));
    EXPECT_EQ(Request(*client.connection, *record("after-request")).errorValue(),
              MessageError::Invalid);
    ASSERT_TRUE(client.events->waitFor(1));
    EXPECT_EQ(client.events->events()[0].errorValue(), MessageError::Invalid);
  }
  // The server notes a peer's end after everything that peer sent.
  Client observer("svc");
  std::vector<std::string> values;
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  do {
    MessageObject reply = Request(*observer.connection, *Op("recorded"));
    ASSERT_NE(reply.dictionary(), nullptr);
    values = Strings(*reply.dictionary()->find("values"));
  } while (values.size() < 2 && std::chrono::steady_clock::now() < deadline);
  EXPECT_EQ(values, (std::vector<std::string>{"before", "<gone>"}));
}

TEST(MessageConnectionTest, ClientReachesTheDaemonThatTheLauncherRestarted) {
  test::HelperProcess launcher(
      "tools/kx-launch/kx-launch",
      {"--name", "svc", "--", test::HelperPath("message_peer"), "serve", "svc"});
  const std::string path = *ServiceSocketPath("svc");
  for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
       access(path.c_str(), F_OK) != 0 && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(10ms);

  Client first("svc");
  MessageObject one = Request(*first.connection, *Op("echo"));
  ASSERT_NE(one.dictionary(), nullptr);
  const pid_t daemon = static_cast<pid_t>(*one.dictionary()->uint64("pid"));
  ASSERT_EQ(kill(daemon, SIGKILL), 0);
  ASSERT_TRUE(first.events->waitFor(1));
  EXPECT_EQ(first.events->events()[0].errorValue(), MessageError::Interrupted);

  // Reconnecting at once: the client waits in the backlog for the next daemon.
  Client second("svc");
  MessageObject two = Request(*second.connection, *Op("echo"));
  ASSERT_NE(two.dictionary(), nullptr);
  const pid_t restarted = static_cast<pid_t>(*two.dictionary()->uint64("pid"));
  EXPECT_NE(restarted, daemon);

  // SIGTERM reaches the daemon through the launcher, which then exits cleanly.
  const pid_t launcherPid = ParentOf(restarted);
  ASSERT_GT(launcherPid, 1);
  ASSERT_EQ(kill(launcherPid, SIGTERM), 0);
  const int status = launcher.Wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  EXPECT_NE(kill(restarted, 0), 0);
}

using test::SendRaw;

TEST(MessageConnectionTest, HostileDatagramsAreDroppedWithoutLeaks) {
  LocalServer server("hostile");
  int error = 0;
  ScopedFd raw = ConnectToService("hostile", &error);
  ASSERT_TRUE(raw) << error;

  OutgoingMessage valid;
  ASSERT_TRUE(valid.encode(*Op("valid")));
  valid.setHeader(0, 0, 0);
  const std::vector<uint8_t> validBytes = test::Flatten(valid);

  // Sends `bytes` with fresh descriptors; this side's copies close after.
  auto sendWith = [&](const std::vector<uint8_t>& bytes, auto... fds) {
    ScopedFd owned[] = {std::move(fds)...};
    std::vector<int> raws;
    for (const ScopedFd& fd : owned) raws.push_back(fd.get());
    SendRaw(raw.get(), bytes, raws);
  };
  auto eventFd = [] { return ScopedFd(eventfd(0, EFD_CLOEXEC)); };
  auto memfd = [](std::span<const uint8_t> contents, size_t size, bool sealed) {
    return test::MakeMemfd(contents, size, sealed);
  };
  auto shmem = [](uint64_t length) {
    return test::RawDatagram()
        .header(1)
        .dictionary(1)
        .text("m")
        .bytes({0x0B, 0})
        .varint(length)
        .data();
  };
  auto outOfLine = [](uint64_t length) {
    return test::RawDatagram().header(0, MessageHeader::kOutOfLine).varint(length).data();
  };
  const std::vector<uint8_t> page(4096, 7);
  const std::vector<uint8_t> body = test::RawDatagram().dictionary(1).text("op").byte(0x00).data();
  const std::vector<uint8_t> oneFd =
      test::RawDatagram().header(1).dictionary(1).text("fd").bytes({0x0A, 0}).data();

  test::RawDatagram reused;
  reused.header(2).dictionary(2).text("a").bytes({0x0A, 0}).text("b").bytes({0x0A, 0});
  const std::vector<uint8_t> reusedIndex = reused.data();
  // Rejected only after the region has been mapped.
  test::RawDatagram mappedThenDuplicate;
  mappedThenDuplicate.header(1).dictionary(2).text("m").bytes({0x0B, 0}).varint(100);
  mappedThenDuplicate.text("m").byte(0);
  const std::vector<uint8_t> badBody =
      test::RawDatagram().dictionary(1).text("op").byte(0x0E).data();

  // Every kind of bad datagram, then a valid one: the connection delivers in
  // order, so once that arrives every earlier datagram has been dealt with.
  auto sendHostileThenValid = [&] {
    std::mt19937 random(42);
    for (int i = 0; i < 200; ++i) {
      std::vector<uint8_t> noise(random() % 600);
      for (uint8_t& b : noise) b = static_cast<uint8_t>(random());
      if (!noise.empty() && i % 2) noise[0] = 1;  // past the version check
      SendRaw(raw.get(), noise);
    }
    for (size_t n = 0; n < validBytes.size(); ++n)
      SendRaw(raw.get(), std::span(validBytes.data(), n));
    SendRaw(raw.get(), std::vector<uint8_t>(kMessageInlineLimit + 4096, 1));  // too large
    SendRaw(raw.get(), test::RawDatagram().header(0).dictionary(1).text("op").byte(0x0E).data());
    SendRaw(raw.get(),
            test::RawDatagram().header(0).dictionary(1).text("op").bytes({0x08, 1, 0xFF}).data());
    SendRaw(raw.get(),
            test::RawDatagram().header(0, MessageHeader::kIsReply).varint(99).dictionary(0).data());
    sendWith(oneFd, eventFd(), eventFd());                                    // more than declared
    sendWith(test::RawDatagram().header(0).dictionary(0).data(), eventFd());  // none declared
    sendWith(test::RawDatagram().header(1).dictionary(1).text("fd").bytes({0x0A, 3}).data(),
             eventFd());  // index out of range
    sendWith(reusedIndex, eventFd(), eventFd());
    sendWith(test::RawDatagram().header(1).dictionary(0).data(), eventFd());  // declared, unused
    sendWith(shmem(1), eventFd());                                            // not a memfd
    sendWith(shmem(100), memfd(page, 4096, /*sealed=*/false));
    sendWith(shmem(3 * 4096), memfd(page, 4096, /*sealed=*/true));
    sendWith(outOfLine(body.size()), memfd(body, body.size(), /*sealed=*/false));
    sendWith(outOfLine(body.size() + 50), memfd(body, body.size(), /*sealed=*/true));
    sendWith(mappedThenDuplicate.data(), memfd(page, 4096, /*sealed=*/true));
    sendWith(outOfLine(badBody.size()), memfd(badBody, badBody.size(), /*sealed=*/true));
    SendRaw(raw.get(), validBytes);
  };

  // Warm-up: the peer's reader, the allocator and every path exist before
  // counting.
  sendHostileThenValid();
  ASSERT_TRUE(server.received->waitFor(1));
  const size_t descriptorsBefore = test::OpenDescriptorCount();
  const size_t mappingsBefore = test::SharedMemoryMappingCount();

  sendHostileThenValid();
  ASSERT_TRUE(server.received->waitFor(2));
  EXPECT_EQ(test::OpenDescriptorCount(), descriptorsBefore);
  EXPECT_EQ(test::SharedMemoryMappingCount(), mappingsBefore);
  std::this_thread::sleep_for(50ms);
  std::vector<MessageObject> received = server.received->events();
  ASSERT_EQ(received.size(), 2u);
  for (const MessageObject& m : received) {
    ASSERT_NE(m.dictionary(), nullptr);
    EXPECT_EQ(m.dictionary()->string("op"), std::optional<std::string_view>("valid"));
  }
}

TEST(MessageConnectionTest, SendsQueueBehindASlowPeerAndBarriersWaitForThem) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  LocalServer server("slow",
                     [released, first = std::make_shared<bool>(true)](const MessageObject&) {
                       if (std::exchange(*first, false)) released.wait();
                     });
  Client client("slow");
  constexpr uint64_t kCount = 100;
  const std::vector<uint8_t> payload(16 * 1024, 3);
  for (uint64_t i = 0; i < kCount; ++i)
    client.connection->send(
        *Dict({{"seq", MessageObject::UInt64(i)}, {"payload", MessageObject::Data(payload)}}));
  auto barrier = std::make_shared<std::promise<void>>();
  std::future<void> barrierRan = barrier->get_future();
  client.connection->sendBarrier([barrier] { barrier->set_value(); });
  // The peer reads nothing while its first message is handled: most sends
  // wait in this process, and so does the barrier.
  EXPECT_EQ(barrierRan.wait_for(200ms), std::future_status::timeout);
  release.set_value();
  EXPECT_EQ(barrierRan.wait_for(kTimeout), std::future_status::ready);
  ASSERT_TRUE(server.received->waitFor(kCount));
  std::vector<MessageObject> received = server.received->events();
  for (uint64_t i = 0; i < kCount; ++i) EXPECT_EQ(received[i].dictionary()->uint64("seq"), i);
}

TEST(MessageConnectionTest, PeersKnowEachOtherAndRepliesRunOnTheirQueue) {
  LocalServer server("identity", [](const MessageObject& m) {
    const MessageDictionary& request = *m.dictionary();
    std::shared_ptr<MessageConnection> peer = request.remoteConnection();
    auto reply = MessageDictionary::CreateReply(request);
    ASSERT_NE(reply, nullptr);
    reply->set("bundle", MessageObject::String(peer->copyPeerBundleIdentifier().value_or("")));
    reply->set("pid", MessageObject::UInt64(static_cast<uint64_t>(peer->peerIdentity()->pid)));
    peer->send(*reply);
  });
  // Sent before resume: held until the connection is made.
  Client client("identity", /*resume=*/false);
  auto replyQueue = Queue::Create("test.reply-queue");
  auto promise = std::make_shared<std::promise<MessageObject>>();
  client.connection->sendWithReply(*Op("who"), replyQueue,
                                   [promise, replyQueue](const MessageObject& r) {
                                     EXPECT_TRUE(replyQueue->isCurrent());
                                     promise->set_value(r);
                                   });
  client.connection->resume();
  auto future = promise->get_future();
  ASSERT_EQ(future.wait_for(kTimeout), std::future_status::ready);
  MessageObject reply = future.get();
  ASSERT_NE(reply.dictionary(), nullptr);
  EXPECT_EQ(reply.dictionary()->string("bundle"),
            std::optional<std::string_view>("platform_message_tests"));
  EXPECT_EQ(reply.dictionary()->uint64("pid"), static_cast<uint64_t>(getpid()));
  EXPECT_EQ(client.connection->copyPeerBundleIdentifier(), "platform_message_tests");
}

TEST(MessageConnectionTest, CancelledListenerRefusesNewClients) {
  auto server = std::make_unique<LocalServer>("gone");
  {
    Client before("gone");
    before.connection->send(*Op("x"));
    ASSERT_TRUE(server->received->waitFor(1));
  }
  server.reset();
  // The listener's socket file goes with it once the accept loop has ended.
  const std::string path = *ServiceSocketPath("gone");
  for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
       access(path.c_str(), F_OK) == 0 && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(5ms);
  Client after("gone");
  ASSERT_TRUE(after.events->waitFor(1));
  EXPECT_EQ(after.events->events()[0].errorValue(), MessageError::Invalid);
}

// A service whose backlog holds one connection that nobody accepts, so that
// clients find it full and retry until `makeRoom`.
class BusyService {
 public:
  explicit BusyService(std::string_view name) : path_(*ServiceSocketPath(name)) {
    listening_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    filler_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.c_str(), path_.size());
    auto* sa = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listening_.get(), sa, sizeof address), 0);
    EXPECT_EQ(listen(listening_.get(), 0), 0);
    EXPECT_EQ(connect(filler_.get(), sa, sizeof address), 0);
  }
  ~BusyService() { unlink(path_.c_str()); }
  // The next waiting client.
  ScopedFd accept() { return ScopedFd(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC)); }
  // Takes the connection that filled the backlog away.
  void makeRoom() { accept(); }

 private:
  std::string path_;
  ScopedFd listening_;
  ScopedFd filler_;
};

TEST(MessageConnectionTest, CancelWhileRetryingToConnectEndsTheConnectionExactlyOnce) {
  for (const bool cancelBeforeStored : {true, false}) {
    SCOPED_TRACE(cancelBeforeStored ? "cancel before the socket is stored" : "cancel after");
    BusyService service("busy");
    Client client("busy", /*resume=*/false);
    std::atomic<bool> armed{true};
    std::promise<void> roomMade;
    SetConnectRetryHookForTesting([&] {
      if (!armed.exchange(false)) return;
      service.makeRoom();
      if (cancelBeforeStored) client.connection->cancel();
      roomMade.set_value();
    });
    client.connection->resume();
    ASSERT_EQ(roomMade.get_future().wait_for(kTimeout), std::future_status::ready);
    if (!cancelBeforeStored) {
      // Queued until connected: its arrival shows that the reader stored
      // the socket and flushed.
      client.connection->send(*Op("hello"));
      ScopedFd peer = service.accept();
      ASSERT_TRUE(peer);
      pollfd p{peer.get(), POLLIN, 0};
      ASSERT_EQ(poll(&p, 1, 10'000), 1);
      client.connection->cancel();
    }
    ASSERT_TRUE(client.events->waitFor(1));
    std::this_thread::sleep_for(50ms);
    SetConnectRetryHookForTesting(nullptr);
    std::vector<MessageObject> events = client.events->events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].errorValue(), MessageError::Invalid);
  }
}

TEST(MessageConnectionTest, APeerThatNeverReadsIsInterruptedOnceAndHoldsFewDescriptors) {
  std::string error;
  std::optional<ServiceListener> listener = ListenOnService("stuck", &error);
  ASSERT_TRUE(listener) << error;
  Client client("stuck");
  ScopedFd peer(accept4(listener->fd.get(), nullptr, nullptr, SOCK_CLOEXEC));  // never read
  ASSERT_TRUE(peer);

  // Each queued copy of the message holds a duplicate of its descriptor.
  auto message = Dict({{"fd", MessageObject::FileDescriptor(ScopedFd(eventfd(0, EFD_CLOEXEC)))}});
  WritableWaiter::Shared();  // its descriptors are the process's, made on first use
  const size_t baseline = test::OpenDescriptorCount();
  for (int i = 0; i < 3000; ++i) client.connection->send(*message);
  EXPECT_LE(test::OpenDescriptorCount(), baseline + 256);

  ASSERT_TRUE(client.events->waitFor(1));
  EXPECT_EQ(Request(*client.connection, *message).errorValue(), MessageError::Interrupted);
  std::this_thread::sleep_for(50ms);
  std::vector<MessageObject> events = client.events->events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].errorValue(), MessageError::Interrupted);
  EXPECT_EQ(test::OpenDescriptorCount(), baseline);
  RemoveServiceSocketFile(*listener);
}

}  // namespace
}  // namespace kx
