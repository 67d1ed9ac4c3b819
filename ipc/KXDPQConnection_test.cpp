#include "kx/KXDPQConnection.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "ipc/dpq_testing.h"
#include "kx/assert.h"
#include "platform/message/shared_memory.h"
#include "tests/support/assertion_recorder.h"

namespace kx {
namespace {

using test::Client;
using test::Int;
using test::kTimeout;
using test::LoggedCount;
using test::Named;
using test::PatternByte;
using test::PeerServer;

std::vector<std::string> Strings(const Value& array) {
  std::vector<std::string> out;
  if (const Array* items = array.array())
    for (const Value& v : *items) out.push_back(v.string() ? *v.string() : "?");
  return out;
}

// Polls "Recorded" until the record holds `count` entries.
std::vector<std::string> Recorded(Client& client, size_t count) {
  std::vector<std::string> values;
  for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
       values.size() < count && std::chrono::steady_clock::now() < deadline;) {
    std::optional<std::shared_ptr<KXDPQMessage>> reply = client.request(Named("Recorded"));
    if (!reply || !*reply) break;
    values = Strings((*reply)->info()["values"]);
  }
  return values;
}

// Waits until the log has `count` lines ending with `text`.
bool WaitForLogged(const std::string& text, size_t count) {
  for (auto deadline = std::chrono::steady_clock::now() + kTimeout; LoggedCount(text) < count;) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

TEST(KXDPQConnectionTest, OneWayAndRequestReplyMessagesReachTheServer) {
  setKXLogLevel(7);
  PeerServer server("svc");
  Client client("svc");
  client.connection->sendMessage(Named("Record", MakeDictionary({{"value", "a"}})));
  client.connection->sendMessage(Named("Record", MakeDictionary({{"value", "b"}})), nullptr);
  std::optional<std::shared_ptr<KXDPQMessage>> echo =
      client.request(Named("Echo", MakeDictionary({{"k", "v"}})));
  ASSERT_TRUE(echo && *echo);
  EXPECT_EQ((*echo)->info()["k"], Value("v"));
  EXPECT_GT(Int((*echo)->info(), "pid"), 0);
  EXPECT_FALSE((*echo)->name());
  EXPECT_EQ((*echo)->receivingConnection(), client.connection);
  EXPECT_EQ(Recorded(client, 2), (std::vector<std::string>{"a", "b"}));

  EXPECT_EQ(client.connection->serviceName(), "svc");
  EXPECT_EQ(client.connection->bundleID(), "dpq_peer");
  EXPECT_FALSE(client.connection->ownsQueue());

  // Without a queue the connection makes its own, and replies arrive there.
  std::shared_ptr<KXDPQConnection> own = KXDPQConnection::initWithServiceName("svc", nullptr);
  ASSERT_TRUE(own->ownsQueue());
  EXPECT_EQ(own->eventQueue()->label(), "com.orvex.search.DPQEvent");
  auto onQueue = std::make_shared<std::promise<bool>>();
  own->sendMessage(Named("Echo"), [onQueue, queue = own->eventQueue()](const auto& reply) {
    onQueue->set_value(reply && queue->isCurrent());
  });
  EXPECT_TRUE(onQueue->get_future().get());
  own->shutdown();
  // Only sends with a reply callback pass the logging step.
  EXPECT_EQ(LoggedCount("sendMessage: Echo"), 2u);
  EXPECT_EQ(LoggedCount("sendMessage: Record"), 1u);
}

TEST(KXDPQConnectionTest, SharedMemoryTravelsWithItsDeclaredLength) {
  setKXLogLevel(7);
  PeerServer server("svc");
  Client client("svc");
  // Allocator regions travel as their own descriptor, other memory as a copy.
  void* allocated = SharedMemoryAllocator::Allocate(6000);
  std::vector<uint8_t> plain(6000);
  auto* bytes = static_cast<uint8_t*>(allocated);
  uint64_t sum = 0;
  for (size_t i = 0; i < 6000; ++i) sum += plain[i] = bytes[i] = PatternByte(i);
  for (const void* region : {static_cast<const void*>(allocated), static_cast<const void*>(plain.data())}) {
    auto message = Named("Echo");
    message->setSharedMemoryRegion(region);
    message->setSharedMemoryLength(6000);
    std::optional<std::shared_ptr<KXDPQMessage>> reply = client.request(message);
    ASSERT_TRUE(reply && *reply);
    EXPECT_EQ(Int((*reply)->info(), "length"), 6000);
    EXPECT_EQ(Int((*reply)->info(), "sum"), static_cast<int64_t>(sum));
  }
  SharedMemoryAllocator::Free(allocated);

  // Without a message handler the pushed message is dropped; the reply
  // follows it on the same queue, so it has been dropped once the reply is in.
  client.connection->setMessageHandler(nullptr);
  ASSERT_TRUE(client.request(Named("Push", MakeDictionary({{"length", 3}}))));
  client.connection->setMessageHandler([inbox = client.messages](const auto& m) { inbox->add(m); });
  ASSERT_TRUE(client.request(Named("Push", MakeDictionary({{"length", 5000}}))));
  ASSERT_EQ(client.messages->size(), 1u);
  std::shared_ptr<KXDPQMessage> pushed = client.messages->items()[0];
  EXPECT_EQ(pushed->name(), "Pushed");
  ASSERT_EQ(pushed->sharedMemoryLength(), 5000u);
  const auto* received = static_cast<const uint8_t*>(pushed->sharedMemoryRegion());
  for (size_t i = 0; i < 5000; ++i) ASSERT_EQ(received[i], PatternByte(i)) << i;
  EXPECT_EQ(LoggedCount("Handle message: Pushed"), 1u);
}

TEST(KXDPQConnectionTest, LosingTheServerDisconnectsOnceAndAnswersAwaitedRepliesWithNothing) {
  setKXLogLevel(7);
  PeerServer server("svc");
  Client client("svc");
  auto hung = std::make_shared<test::MessageInbox>();
  client.connection->sendMessage(Named("Hang"), [hung](const auto& reply) { hung->add(reply); });
  std::optional<std::shared_ptr<KXDPQMessage>> echo = client.request(Named("Echo"));
  ASSERT_TRUE(echo && *echo);
  EXPECT_EQ(hung->size(), 0u);

  testing::internal::CaptureStderr();
  ASSERT_EQ(kill(static_cast<pid_t>(Int((*echo)->info(), "pid")), SIGKILL), 0);
  ASSERT_TRUE(client.disconnects->waitFor(1));
  ASSERT_TRUE(hung->waitFor(1));
  EXPECT_EQ(hung->items()[0], nullptr);
  // The console line does not depend on the log thresholds.
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Reply Error: Connection interrupted\n"),
            std::string::npos);
  EXPECT_EQ(LoggedCount("Reply Error:Connection interrupted"), 1u);
  const std::string description = client.connection->description();
  EXPECT_EQ(LoggedCount("DPQ Connection interrupted " + description), 1u);

  // The invalidation that follows the shutdown does not call the handler again.
  client.connection->shutdown();
  EXPECT_EQ(LoggedCount("Shutdown called on DPQ connection " + description), 1u);
  ASSERT_TRUE(WaitForLogged("DPQ Connection invalid " + description, 1));
  EXPECT_EQ(client.disconnects->size(), 1u);
  // Nothing but its owner keeps the wrapper alive.
  echo.reset();
  client.connection = nullptr;
  EXPECT_TRUE(WaitForLogged("KXDPQConnection dealloc", 1));
}

TEST(KXDPQConnectionTest, AMissingServiceIsReportedInvalidOnce) {
  setKXLogLevel(7);
  Client client("nobody");
  ASSERT_TRUE(client.disconnects->waitFor(1));
  // Sends on the ended connection are answered with nothing.
  std::optional<std::shared_ptr<KXDPQMessage>> reply = client.request(Named("Echo"));
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, nullptr);
  EXPECT_EQ(client.disconnects->size(), 1u);
  EXPECT_EQ(LoggedCount("DPQ Connection invalid " + client.connection->description()), 1u);
}

TEST(KXDPQConnectionTest, NothingIsSentAfterShutdown) {
  setKXLogLevel(7);
  PeerServer server("svc");
  auto replies = std::make_shared<test::MessageInbox>();
  {
    Client client("svc");
    client.connection->sendMessage(Named("Record", MakeDictionary({{"value", "before"}})));
    client.connection->shutdown();
    EXPECT_FALSE(client.connection->serviceName());
    client.connection->sendMessage(Named("Record", MakeDictionary({{"value", "after"}})));
    client.connection->sendMessage(Named("Echo"), [replies](const auto& r) { replies->add(r); });
    ASSERT_TRUE(client.disconnects->waitFor(1));
  }
  Client observer("svc");
  EXPECT_EQ(Recorded(observer, 2), (std::vector<std::string>{"before", "<gone>"}));
  EXPECT_EQ(replies->size(), 0u);
  EXPECT_EQ(LoggedCount("sendMessage: Echo"), 1u);

  // A nameless message is a programming error; a nil one is ignored.
  ScopedAssertionRecorder recorder;
  observer.connection->sendMessage(KXDPQMessage::initWithName(std::nullopt));
  observer.connection->sendMessage(nullptr, [replies](const auto& r) { replies->add(r); });
  EXPECT_EQ(recorder.texts(), std::vector<std::string>{"Message must have a name"});
  EXPECT_EQ(LoggedCount("Ignoring request to send a nil message"), 1u);
  EXPECT_EQ(KXDPQConnection::initWithDPQConnection(nullptr), nullptr);
  EXPECT_EQ(recorder.texts().back(), "Must have dpq_connection");
}

TEST(KXDPQConnectionTest, AClientThatReconnectsReachesTheRestartedDaemon) {
  test::HelperProcess launcher("tools/kx-launch/kx-launch",
                               {"--name", "svc", "--", test::HelperPath("dpq_peer"), "serve", "svc"});
  test::WaitForServiceSocket("svc");
  Client first("svc");
  std::optional<std::shared_ptr<KXDPQMessage>> one = first.request(Named("Echo"));
  ASSERT_TRUE(one && *one);
  const pid_t daemon = static_cast<pid_t>(Int((*one)->info(), "pid"));
  ASSERT_EQ(kill(daemon, SIGKILL), 0);
  ASSERT_TRUE(first.disconnects->waitFor(1));

  // Reconnecting at once: the new connection waits in the launcher's
  // backlog for the next daemon.
  Client second("svc");
  std::optional<std::shared_ptr<KXDPQMessage>> two = second.request(Named("Echo"));
  ASSERT_TRUE(two && *two);
  EXPECT_NE(Int((*two)->info(), "pid"), daemon);
  EXPECT_EQ(second.disconnects->size(), 0u);
  kill(static_cast<pid_t>(Int((*two)->info(), "pid")), SIGTERM);
}

}  // namespace
}  // namespace kx
