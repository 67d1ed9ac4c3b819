#include "kx/KXDPQServer.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "ipc/dpq_testing.h"

namespace kx {
namespace {

using test::Client;
using test::Named;

// Replies with {"handler": tag}.
KXDPQServer::Handler Tagged(std::string tag) {
  return [tag](const auto&, const std::shared_ptr<KXDPQMessage>& m) {
    if (m->needsReply()) m->sendReply(Value(MakeDictionary({{"handler", tag}})));
  };
}

std::string HandlerOf(Client& client, const std::string& name) {
  std::optional<std::shared_ptr<KXDPQMessage>> reply = client.request(Named(name));
  if (!reply || !*reply) return "<no reply>";
  const std::string* tag = (*reply)->info()["handler"].string();
  return tag ? *tag : "<none>";
}

std::shared_ptr<KXDPQServer> Listen() {
  auto server = KXDPQServer::initListenerWithServiceName("svc", Queue::Create("test.listener"));
  server->startListening();
  return server;
}

TEST(KXDPQServerTest, MessagesGoToTheHandlerOfTheirNameElseToTheDefault) {
  std::shared_ptr<KXDPQServer> server = Listen();
  server->setHandlerForMessageName("A", Tagged("first A"));
  server->setHandlerForMessageName("A", Tagged("A"));
  Client client("svc");
  // With neither a handler nor a default the message is dropped: its
  // sender hears nothing until the connection ends.
  auto unanswered = std::make_shared<test::MessageInbox>();
  client.connection->sendMessage(Named("B"), [unanswered](const auto& r) { unanswered->add(r); });
  EXPECT_EQ(HandlerOf(client, "A"), "A");
  EXPECT_EQ(unanswered->size(), 0u);

  server->setHandlerForMessageName(std::nullopt, Tagged("default"));
  EXPECT_EQ(HandlerOf(client, "B"), "default");
  EXPECT_EQ(HandlerOf(client, "A"), "A");
  EXPECT_EQ(server->_handlerForMessageName(std::nullopt), server->_handlerForMessageName("B"));
  server->setHandlerForMessageName("A", nullptr);
  EXPECT_EQ(HandlerOf(client, "A"), "default");

  client.connection->shutdown();
  ASSERT_TRUE(unanswered->waitFor(1));
  EXPECT_EQ(unanswered->items()[0], nullptr);
}

TEST(KXDPQServerTest, APeerThatLeavesIsRemovedBeforeTheDisconnectHandlerSeesIt) {
  std::shared_ptr<KXDPQServer> server = Listen();
  auto received = std::make_shared<test::Inbox<std::string>>();
  server->setHandlerForMessageName("Record", [received](const auto& peer, const auto& m) {
    received->add(*m->info()["value"].string() + " from " + peer->bundleID().value_or("?"));
  });
  struct Gone {
    std::shared_ptr<KXDPQConnection> peer;
    bool stillListed;
  };
  auto gone = std::make_shared<test::Inbox<Gone>>();
  std::weak_ptr<KXDPQServer> weak = server;
  server->setDisconnectHandler([gone, weak](const std::shared_ptr<KXDPQConnection>& peer) {
    std::vector<std::shared_ptr<KXDPQConnection>> live = weak.lock()->connections();
    gone->add({peer, std::find(live.begin(), live.end(), peer) != live.end()});
  });

  test::HelperRun run = test::RunHelper("dpq_peer", {"send", "svc", "Record", "--value", "x"});
  EXPECT_EQ(run.exitCode, 0) << run.output;
  ASSERT_TRUE(gone->waitFor(1));
  EXPECT_EQ(received->items(), std::vector<std::string>{"x from dpq_peer"});
  EXPECT_FALSE(gone->items()[0].stillListed);
  EXPECT_TRUE(server->connections().empty());

  // A peer still connected is listed until it leaves.
  Client client("svc");
  client.connection->sendMessage(Named("Record", MakeDictionary({{"value", "y"}})));
  ASSERT_TRUE(received->waitFor(2));
  EXPECT_EQ(server->connections().size(), 1u);
  client.connection->shutdown();
  ASSERT_TRUE(gone->waitFor(2));
  EXPECT_NE(gone->items()[1].peer, gone->items()[0].peer);
}

TEST(KXDPQServerTest, AfterShutdownNoPeerOrMessageIsServed) {
  std::shared_ptr<KXDPQServer> server = Listen();
  auto handled = std::make_shared<std::atomic<int>>(0);
  server->setHandlerForMessageName("A", [handled](const auto&, const auto& m) {
    ++*handled;
    m->sendReply();
  });
  auto left = std::make_shared<test::Inbox<int>>();
  server->setDisconnectHandler([left](const auto&) { left->add(1); });
  Client client("svc");
  ASSERT_TRUE(client.request(Named("A")));
  EXPECT_TRUE(server->shutdown());

  auto replies = std::make_shared<test::MessageInbox>();
  client.connection->sendMessage(Named("A"), [replies](const auto& r) { replies->add(r); });
  // A new peer is not taken on: it is closed at once.
  Client late("svc");
  EXPECT_TRUE(late.disconnects->waitFor(1));
  // The existing peer's end is noticed after the message it sent before.
  client.connection->shutdown();
  ASSERT_TRUE(left->waitFor(1));
  EXPECT_EQ(handled->load(), 1);
  ASSERT_TRUE(replies->waitFor(1));
  EXPECT_EQ(replies->items()[0], nullptr);
}

}  // namespace
}  // namespace kx
