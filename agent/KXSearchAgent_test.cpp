// End-to-end behaviour of the agent's lifecycle and update pipeline against
// the scriptable test daemon (query texts are the daemon's scripts).
#include "kx/KXSearchAgent.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "agent/agent_testing.h"
#include "kx/log.h"
#include "kx/search_preferences.h"
#include "platform/notify/notify.h"
#include "platform/process/process_info.h"
#include "platform/services/statistics.h"

namespace kx {
namespace {

using test::AgentFixture;
using test::DrainUntil;
using test::LoggedCount;
using test::OnMain;
using test::RecordingAgentDelegate;

constexpr char kTwoResults[] = "results:4:2 complete";

// Waits until the query queue has finished the current query, without
// letting the main queue run.
void WaitForCompletion(KXSearchAgent& agent) {
  for (auto deadline = std::chrono::steady_clock::now() + test::kTimeout;
       !agent.queryComplete() && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_TRUE(agent.queryComplete());
  agent.queryProcessor()->sync([] {});
}

TEST(SearchAgentTest, RepeatedTextOpensOneQueryAndRecordsLatency) {
  setKXLogLevel(7);
  auto statistics = std::make_shared<InProcessStatistics>();
  Statistics::SetShared(statistics);
  AgentFixture f;
  EXPECT_TRUE(f.agent->setQueryString(kTwoResults, "en", 0, true));
  EXPECT_TRUE(f.agent->setQueryString(kTwoResults, "en", 0, true));
  EXPECT_EQ(f.agent->currentQuerySeqNo(), 1u);
  ASSERT_TRUE(f.waitForSections("4:r1,r2"));
  EXPECT_TRUE(DrainUntil([&] { return f.agent->queryComplete(); }));
  EXPECT_EQ(f.daemon.received("OpenQuery").size(), 1u);
  EXPECT_EQ(f.delegate->offMain.load(), 0);
  OnMain([&] {
    EXPECT_TRUE(f.agent->hasResults());
    EXPECT_EQ(f.agent->sectionCount(), 1u);
    EXPECT_EQ(f.agent->sectionAtIndex(1), nullptr);
  });
  const std::string bundle = BundleIdentifier();
  EXPECT_EQ(statistics->distribution("com.orvex.searchd.clientlatency.ttfr." + bundle)->count, 1u);
  EXPECT_EQ(statistics->distribution("com.orvex.searchd.clientlatency." + bundle)->count, 1u);
  f.agent->queryProcessor()->sync([&] { EXPECT_FALSE(f.agent->_shouldIgnoreQuery("x")); });
  f.agent->queryProcessor()->sync(
      [&] { EXPECT_TRUE(f.agent->_shouldIgnoreQuery("RESULTS:4:2 COMPLETE")); });
  Statistics::SetShared(nullptr);
}

TEST(SearchAgentTest, WhiteSpaceTextIsAnInternalClearAndClearIsAnEmptyUpdate) {
  AgentFixture f;
  f.agent->setQueryString(kTwoResults, "en", 0, true);
  ASSERT_TRUE(f.waitForSections("4:r1,r2"));
  f.delegate->reset();
  f.agent->setQueryString(" \t ", "en", 0, true);
  ASSERT_TRUE(DrainUntil([&] { return f.delegate->count() == 1; }));
  EXPECT_EQ(f.delegate->posts()[0].kind, "cleared");
  EXPECT_EQ(f.delegate->posts()[0].sections, "");
  EXPECT_EQ(f.daemon.received("OpenQuery").size(), 1u);

  f.agent->setQueryString(kTwoResults, "en", 0, true);
  ASSERT_TRUE(f.waitForSections("4:r1,r2"));
  f.delegate->reset();
  OnMain([&] { f.agent->clear(); });
  ASSERT_TRUE(DrainUntil([&] { return f.delegate->count() == 1; }));
  EXPECT_EQ(f.delegate->posts()[0].kind, "updated");
  EXPECT_EQ(f.delegate->posts()[0].sections, "");
}

TEST(SearchAgentTest, UpdatesHandedOverBeforeTheMainQueueRunsArePostedOnce) {
  AgentFixture f;
  f.agent->setQueryString("results:4:1 results:5:2 complete", "en", 0, true);
  WaitForCompletion(*f.agent);
  main_loop::drain();
  ASSERT_EQ(f.delegate->count(), 1u);
  EXPECT_EQ(f.delegate->lastSections(), "4:r1 5:r1,r2");
}

TEST(SearchAgentTest, ABlockedMainQueueIsWokenOnceForARunOfHandOvers) {
  AgentFixture f;
  ASSERT_EQ(main_loop::drain(), 0u);
  for (int i = 0; i < 10; ++i) {
    f.agent->queryProcessor()->async([agent = f.agent] { agent->updateResultsThroughDelegate(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  f.agent->queryProcessor()->sync([] {});
  pollfd readable = {main_loop::fd(), POLLIN, 0};
  EXPECT_EQ(poll(&readable, 1, 0), 1);
  EXPECT_EQ(main_loop::drain(), 1u);  // one wake-up, one item
  EXPECT_EQ(f.delegate->count(), 1u);
  EXPECT_EQ(poll(&readable, 1, 0), 0);
}

TEST(SearchAgentTest, AnUpdateTakenAfterANewerTextIsPublishedButNotPosted) {
  setKXLogLevel(6);
  AgentFixture f;
  f.agent->setQueryString(kTwoResults, "en", 0, true);
  WaitForCompletion(*f.agent);
  f.agent->setQueryString("sleep:5000", "en", 0, true);
  OnMain([&] { EXPECT_EQ(test::Describe(f.agent->sections()), "4:r1,r2"); });
  EXPECT_EQ(f.delegate->count(), 0u);
  EXPECT_EQ(LoggedCount("Skip posting; update too old 2 != 1."), 1u);
}

TEST(SearchAgentTest, UpdatesWaitWhileDisabled) {
  setKXLogLevel(6);
  AgentFixture f;
  OnMain([&] {
    f.agent->disableUpdates();
    f.agent->disableUpdates();
  });
  f.agent->setQueryString(kTwoResults, "en", 0, true);
  WaitForCompletion(*f.agent);
  main_loop::drain();
  OnMain([&] { f.agent->enableUpdates(); });
  EXPECT_EQ(f.delegate->count(), 0u);
  EXPECT_GE(LoggedCount("Skip posting; updates disabled 1."), 1u);
  OnMain([&] { f.agent->enableUpdates(); });
  ASSERT_EQ(f.delegate->count(), 1u);
  EXPECT_EQ(f.delegate->lastSections(), "4:r1,r2");
}

TEST(SearchAgentDeathTest, UnmatchedEnableStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto agent = KXSearchAgent::init();
        OnMain([&] { agent->enableUpdates(); });
      },
      "");
}

TEST(SearchAgentTest, DictationReusesResponsesAndGoesStableOnce) {
  setKXLogLevel(7);
  AgentFixture f;
  const Value response = MakeDictionary({{"voicekey", "spoken"}});
  f.agent->setQueryString("results:4:1 complete", "en", response, false);
  // Not activated: completion releases the held-back results.
  ASSERT_TRUE(f.waitForSections("4:r1"));
  // The entry drops an identical text; the same text after trimming passes.
  f.agent->setQueryString("results:4:1 complete ", "en", response, true);
  f.agent->setQueryString("results:4:1 complete more", "en", Value(Dictionary{}), false);
  f.settle();
  EXPECT_EQ(LoggedCount("======^^^^^^ NEVER STABLE WENT STABLE ======"), 1u);
  EXPECT_EQ(LoggedCount("======^^^^^^ REPLACING VOICE SEARCH WITH OLDER RESULTS! ======"), 1u);
  const std::vector<test::Received> opens = f.daemon.waitFor("OpenQuery", 2);
  ASSERT_EQ(opens.size(), 2u);
  EXPECT_NE(opens[1].details.find("voicekey = spoken"), std::string::npos) << opens[1].details;
}

TEST(SearchAgentTest, WithoutInternetTheServerDomainsAreLeftOut) {
  AgentFixture f;
  f.agent->setSearchDomains(std::vector<uint32_t>{4, 16, 17});
  f.agent->setQueryString("complete", "en", 0, false);
  f.agent->setQueryString("complete ", "en", 0, true);
  const std::vector<test::Received> opens = f.daemon.waitFor("OpenQuery", 2);
  ASSERT_EQ(opens.size(), 2u);
  EXPECT_NE(opens[0].details.find("DA = ( 4 );"), std::string::npos) << opens[0].details;
  EXPECT_NE(opens[1].details.find("DA = ( 4, 16, 17 );"), std::string::npos) << opens[1].details;
}

TEST(SearchAgentTest, APreferenceChangeClearsDirectlyAndThroughThePipeline) {
  setKXLogLevel(6);
  AgentFixture f;
  f.agent->setQueryString(kTwoResults, "en", 0, true);
  ASSERT_TRUE(f.waitForSections("4:r1,r2"));
  f.delegate->reset();
  const size_t clearsBefore = LoggedCount("Post clear");
  notify::Post(kKXSearchPreferencesChangedNotification);
  ASSERT_TRUE(DrainUntil([&] { return f.delegate->count() == 2; }));
  for (const auto& post : f.delegate->posts()) {
    EXPECT_EQ(post.kind, "cleared");
    EXPECT_EQ(post.sections, "");
  }
  EXPECT_EQ(LoggedCount("Post clear"), clearsBefore + 1);
}

TEST(SearchAgentTest, ADelegateThatTakesNoUpdatesGetsNone) {
  setKXLogLevel(7);
  AgentFixture f({"--per-query-scripts"}, 0, 0,
                 std::make_shared<RecordingAgentDelegate>(/*answersUpdates=*/false));
  f.agent->setQueryString(kTwoResults, "en", 0, true);
  WaitForCompletion(*f.agent);
  f.settle();
  EXPECT_EQ(f.delegate->count(), 0u);
  EXPECT_EQ(LoggedCount("postSearchAgentUpdatedResultsToDelegate ignored"), 0u);
}

TEST(SearchAgentTest, ANewTextGetsAFirstUpdateBeforeAnyResult) {
  AgentFixture f;
  f.agent->setQueryString("sleep:3000 results:4:1", "en", 0, true);
  ASSERT_TRUE(DrainUntil([&] { return f.delegate->count() == 1; }, std::chrono::milliseconds(2500)));
  EXPECT_EQ(f.delegate->posts()[0].kind, "updated");
  EXPECT_EQ(f.delegate->posts()[0].sections, "");
}

TEST(SearchAgentTest, ImagesAreAskedForWithTheSectionsDomain) {
  AgentFixture f;
  KXSearchResult result;
  result.setIdentifier(7);
  KXSearchResultSection section;
  section.setDomain(4);
  test::Inbox<std::string> images;
  auto keep = [&](std::optional<std::vector<uint8_t>> data) {
    images.add(data ? std::string(data->begin(), data->end()) : "none");
  };
  f.agent->retrieveImageDataForResult(result, section, {10, 20}, keep);
  f.agent->retrieveImageDataForIdentifier("icon", section, {3, 4}, keep);
  ASSERT_TRUE(images.waitFor(2));
  std::vector<std::string> got = images.items();
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::string>{"ID=7 D=4 10x20", "IDI=icon D=4 3x4"}));
}

}  // namespace
}  // namespace kx
