#include "kx/KXDaemonQueryToken.h"

#include <gtest/gtest.h>

#include "SearchDaemon/daemon_testing.h"
#include "kx/KXDPQMessage.h"

namespace kx {
namespace {

using test::RecordingDelegate;

// A daemon message as the connection hands it over.
std::shared_ptr<KXDPQMessage> DaemonMessage(const char* name, Dictionary info) {
  auto message = KXDPQMessage::initWithName(name);
  message->setInfo(std::move(info));
  return message;
}

Dictionary ForQuery(uint32_t id, Dictionary more = {}) {
  more["QID"] = Number::UInt32(id);
  return more;
}

struct KXDaemonQueryTokenTest : ::testing::Test {
  std::shared_ptr<Queue> queue = Queue::Create("test.token");
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>(queue);
  std::shared_ptr<KXDaemonQueryToken> token =
      KXDaemonQueryToken::initWithQuery(KXSearchQuery::initWithSearchString("mail"), queue);

  void SetUp() override { token->setDelegate(delegate); }
  // Waits until every delegate call queued so far has run.
  void Flush() { queue->sync([] {}); }
};

TEST_F(KXDaemonQueryTokenTest, TokensTakeConsecutiveIdsAndCopyToThemselves) {
  auto next = KXDaemonQueryToken::initWithQuery(token->query());
  EXPECT_EQ(next->queryID(), token->queryID() + 1);
  EXPECT_EQ(next->queue(), Queue::Main());
  EXPECT_EQ(token->copy(), token);
  EXPECT_EQ(token->query()->searchString(), "mail");
}

TEST_F(KXDaemonQueryTokenTest, MessagesForAnotherOrAMissingIdChangeNothing) {
  const uint32_t other = token->queryID() + 1;
  for (const char* name : {"SearchResults", "SearchReset", "SearchComplete", "SearchError"}) {
    token->handleMessage(DaemonMessage(name, ForQuery(other, {{"FBQ", "x"}})));
    token->handleMessage(DaemonMessage(name, {{"FBQ", "x"}}));
  }
  // Known names only, exactly as spelt.
  token->handleMessage(DaemonMessage("searchcomplete", ForQuery(token->queryID())));
  token->handleMessage(DaemonMessage("SearchProgress", ForQuery(token->queryID())));
  Flush();
  EXPECT_EQ(delegate->events.size(), 0u);
  EXPECT_FALSE(token->queryFinished());
  EXPECT_EQ(token->fbq(), std::nullopt);
}

TEST_F(KXDaemonQueryTokenTest, EventsReachTheDelegateOnItsQueueInArrivalOrder) {
  const uint32_t id = token->queryID();
  token->handleMessage(DaemonMessage("SearchReset", ForQuery(id)));
  // A batch without a region reads as no sections.
  token->handleMessage(DaemonMessage("SearchResults", ForQuery(id)));
  token->handleMessage(DaemonMessage("SearchError", ForQuery(id, {{"ERR", Number::UInt32(7)}})));
  token->handleMessage(DaemonMessage("SearchError", ForQuery(id)));
  token->handleMessage(DaemonMessage("SearchComplete", ForQuery(id, {{"FBQ", "f1"}, {"WFBQ", "w1"}})));
  ASSERT_TRUE(delegate->events.waitFor(5));
  EXPECT_EQ(delegate->events.items(),
            (std::vector<std::string>{"reset", "results", "error SearchError 7",
                                      "error SearchError 0", "complete"}));
  EXPECT_EQ(delegate->offQueue, 0);
  EXPECT_TRUE(token->queryFinished());
  EXPECT_EQ(token->fbq(), "f1");
  EXPECT_EQ(token->web_fbq(), "w1");

  // A later completion without them clears both.
  token->handleMessage(DaemonMessage("SearchComplete", ForQuery(id)));
  ASSERT_TRUE(delegate->events.waitFor(6));
  EXPECT_EQ(token->fbq(), std::nullopt);
  EXPECT_EQ(token->web_fbq(), std::nullopt);
}

TEST_F(KXDaemonQueryTokenTest, TheDelegateIsFetchedWhenTheCallRuns) {
  auto replacement = std::make_shared<RecordingDelegate>(queue);
  const uint32_t id = token->queryID();
  // Held up on the token's queue, the delegate changes before the calls run.
  queue->sync([&] {
    token->handleMessage(DaemonMessage("SearchReset", ForQuery(id)));
    token->setDelegate(replacement);
  });
  token->handleMessage(DaemonMessage("SearchComplete", ForQuery(id)));
  Flush();
  EXPECT_EQ(delegate->events.size(), 0u);
  EXPECT_EQ(replacement->events.items(), (std::vector<std::string>{"reset", "complete"}));

  // A delegate that went away hears nothing and is not kept alive.
  std::weak_ptr<RecordingDelegate> gone = replacement;
  replacement.reset();
  token->handleMessage(DaemonMessage("SearchReset", ForQuery(id)));
  Flush();
  EXPECT_TRUE(gone.expired());
  EXPECT_EQ(token->delegate(), nullptr);
}

}  // namespace
}  // namespace kx
