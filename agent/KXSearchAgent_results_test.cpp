// End-to-end behaviour of what the agent makes of the daemon's sections:
// merging, de-duplication, search-through rows and zero-keyword queries.
#include <gtest/gtest.h>

#include "agent/agent_testing.h"
#include "kx/KXSearchAgent.h"
#include "kx/restrictions.h"
#include "kx/search_preferences.h"

namespace kx {
namespace {

using test::AgentFixture;
using test::DrainUntil;
using test::OnMain;

constexpr char kZeroKeywordScript[] = "results:22:2;r.sd=4|2 complete";
constexpr char kSlowZeroKeywordScript[] = "results:22:2;r.sd=4|2 sleep:800 results:23:1 complete";

std::vector<std::string> Urls(const KXSearchResultSection& section) {
  std::vector<std::string> urls;
  for (const auto& result : section.results()) urls.push_back(result->url().value_or("-"));
  return urls;
}

TEST(SearchAgentResultsTest, BatchesMergeAndServerDuplicatesHide) {
  AgentFixture f;
  // Two batches: an application row, then the same application in other
  // letter case beside a server section repeating an on-device address.
  f.agent->setQueryString(
      "results:4:2;di=com.App;r.url=https://www.a.org/|b.org "
      "results:4:2;di=COM.APP;r.title=r2|r3+results:16:3;r.url=http://a.org|c.org|d.org;"
      "r.header=H;r.fbr=f1|f2|f3;r.sd=16 complete",
      "en", 0, true);
  ASSERT_TRUE(f.waitForSections("4:r1,r2,r3 16:r2,r3"));
  OnMain([&] {
    const Array* hidden = f.agent->sectionAtIndex(1)->hiddenExtResultsIfPresent();
    ASSERT_NE(hidden, nullptr);
    ASSERT_EQ(hidden->size(), 1u);
    EXPECT_EQ((*hidden)[0]["type"], Value("dup"));
    EXPECT_EQ((*hidden)[0]["fbr"], Value("f1"));
  });
}

TEST(SearchAgentResultsTest, CompletionCleansUpAndAddsSearchThroughRows) {
  AgentFixture f({"--per-query-scripts"}, 0, KXSearchAgent::kOptionSearchThrough);
  f.agent->setQueryString("results:4:1;flags=4096 results:5:1 complete", "en", 0, true);
  ASSERT_TRUE(f.waitForSections("5:r1 1:Search Web,Search App Store,Search Maps"))
      << f.delegate->lastSections();
  OnMain([&] {
    EXPECT_TRUE(f.agent->hasResults());
    EXPECT_EQ(Urls(*f.agent->sectionAtIndex(1)),
              (std::vector<std::string>{
                  "x-web-search://?results:4:1;flags=4096%20results:5:1%20complete",
                  "qmrt-apps://?action=search&term=results:4:1;flags=4096%20results:5:1%20complete",
                  "geo:0,0?q=results:4:1;flags=4096%20results:5:1%20complete"}));
  });

  // A maps category beside it leaves the maps row out; the new section
  // replaces the old one.
  f.agent->setQueryString(
      "results:16:1;r.type=maps;r.maps=category;r.more=More;r.more_url=https://m.org/x complete",
      "en", 0, true);
  ASSERT_TRUE(f.waitForSections("16:r1,More 1:Search Web,Search App Store"));

  // Only the search-through section: nothing to show as results.
  f.agent->setQueryString("complete", "en", 0, true);
  ASSERT_TRUE(f.waitForSections("1:Search Web,Search App Store,Search Maps"));
  OnMain([&] { EXPECT_FALSE(f.agent->hasResults()); });
}

TEST(SearchAgentResultsTest, NoSearchThroughRowsWhileTheBrowserIsForbidden) {
  ASSERT_TRUE(SetRestrictedBool(kAllowWebBrowserSetting, false));
  AgentFixture f({"--per-query-scripts"}, 0, KXSearchAgent::kOptionSearchThrough);
  f.agent->setQueryString("results:4:1 complete", "en", 0, true);
  ASSERT_TRUE(DrainUntil([&] { return f.agent->queryComplete(); }));
  f.settle();
  EXPECT_EQ(f.delegate->lastSections(), "4:r1");
}

TEST(SearchAgentResultsTest, ZeroKeywordResultsAreHeldBackUntilPromoted) {
  AgentFixture f({"--per-query-scripts", "--empty-query-script", kSlowZeroKeywordScript});
  f.agent->queryProcessor()->sync([&] { EXPECT_FALSE(f.agent->promoteCachedQuery()); });
  const Value response = MakeDictionary({{"k", "v"}});
  f.agent->setQueryString("results:4:1 complete", "en", response, true);
  ASSERT_TRUE(f.waitForSections("4:r1"));
  f.agent->activate();
  f.agent->cacheZKWQueryLive(false, false);
  // The first zero-keyword batch arrives and is held back.
  ASSERT_TRUE(DrainUntil([&] { return KXSearchAgent::hasSeenZKWApps(); }));
  f.settle();
  EXPECT_EQ(f.delegate->lastSections(), "4:r1");
  // The same dictation text, stable, promotes the running cached query: its
  // later batches are shown as they come.
  f.agent->setQueryString("results:4:1 complete ", "en", response, true);
  ASSERT_TRUE(f.waitForSections("23:r1"));
  EXPECT_EQ(f.daemon.received("OpenQuery").size(), 2u);
}

TEST(SearchAgentResultsTest, LiveZeroKeywordResultsShowAsTheyCome) {
  AgentFixture f({"--per-query-scripts", "--empty-query-script", kZeroKeywordScript});
  f.agent->activate();
  f.agent->cacheZKWQueryLive(true, false);
  ASSERT_TRUE(f.waitForSections("22:r1,r2"));
}

TEST(SearchAgentResultsTest, ZeroKeywordBelowLevelTwoOpensNothing) {
  AgentFixture f({"--per-query-scripts", "--empty-query-script", kZeroKeywordScript});
  OnMain([&] { f.agent->performZKWQueryWithKeyboardLanguage("en", true); });
  ASSERT_TRUE(DrainUntil([&] { return f.delegate->count() == 1; }));
  EXPECT_TRUE(f.agent->queryComplete());
  EXPECT_EQ(f.daemon.received("OpenQuery").size(), 0u);
}

TEST(SearchAgentResultsTest, ZeroKeywordLevelTwoAsksOnlyTheServerAndKeepsFreshNews) {
  KXSetInternetDomainsAvailable(true);
  AgentFixture f(
      {"--per-query-scripts", "--empty-query-script", "results:16:2;r.header=News complete"}, 2);
  OnMain([&] { f.agent->performZKWQueryWithKeyboardLanguage("en", true); });
  ASSERT_TRUE(f.waitForSections("16:r1,r2")) << f.delegate->lastSections();
  const auto opened = f.daemon.received("OpenQuery");
  ASSERT_EQ(opened.size(), 1u);
  // Only the server's domain is asked for: on-device domains stay silent.
  EXPECT_NE(opened[0].details.find("DA = ( 16 );"), std::string::npos) << opened[0].details;

  // News on screen are kept: asking again opens nothing, and a check before
  // they expire removes nothing.
  OnMain([&] { f.agent->performZKWQueryWithKeyboardLanguage("en", true); });
  f.agent->clearVantleResultsIfStale();
  f.settle();
  EXPECT_EQ(f.daemon.received("OpenQuery").size(), 1u);
  EXPECT_EQ(f.delegate->lastSections(), "16:r1,r2");
}

TEST(SearchAgentResultsTest, ZeroKeywordTestHooksPermuteSaveAndRestore) {
  // The first result of a domain moves down by at most the number of its
  // domain's results.
  auto section = std::make_shared<KXSearchResultSection>();
  for (auto [title, domain] : {std::pair{"a", 4}, {"b", 2}, {"c", 4}, {"d", 4}, {"e", 2}}) {
    auto result = std::make_shared<KXSearchResult>();
    result->setTitle(title);
    result->setSearchResultDomain(domain);
    section->addResults(result);
  }
  auto titles = [](const KXSearchResultSection& s) {
    std::string out;
    for (const auto& r : s.results()) out += r->title().value_or("-");
    return out;
  };
  KXSearchAgent::testPermuteSection(*section, 4, 1);
  EXPECT_EQ(titles(*section), "bacde");
  KXSearchAgent::testPermuteSection(*section, 4, 10);
  EXPECT_EQ(titles(*section), "bcdea");
  KXSearchAgent::testPermuteSection(*section, 19, 1);
  EXPECT_EQ(titles(*section), "bcdea");

  // Saving permutes a copy; restoring alternates between the two saved lists.
  AgentFixture f({"--per-query-scripts", "--empty-query-script", kZeroKeywordScript});
  f.agent->activate();
  f.agent->cacheZKWQueryLive(true, false);
  ASSERT_TRUE(f.waitForSections("22:r1,r2"));
  OnMain([&] { f.agent->testSaveCachedZKWPermUsers(0, 0, 1); });
  OnMain([&] { EXPECT_EQ(titles(*f.agent->sectionAtIndex(0)), "r1r2"); });
  OnMain([&] { f.agent->testRestoreCacheZKW(); });
  ASSERT_TRUE(f.waitForSections("22:r2,r1")) << f.delegate->lastSections();
  OnMain([&] { f.agent->testRestoreCacheZKW(); });
  ASSERT_TRUE(f.waitForSections("")) << f.delegate->lastSections();
}

}  // namespace
}  // namespace kx
