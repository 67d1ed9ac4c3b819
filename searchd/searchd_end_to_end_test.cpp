// The daemon as a client sees it: the library's daemon connection against
// kx-searchd under the launcher, over the sample data.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "kx/KXFeedbackEngagement.h"
#include "searchd/searchd_testing.h"

namespace kx::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

TEST(SearchdEndToEndTest, PrefixesFindItemsByEveryIndexedText) {
  Searchd daemon;
  struct Case {
    const char* text;
    uint32_t domain;
    const char* title;
    std::optional<std::string> language;
  } cases[] = {
      {"fil", 4, "Files", {}},                       // a word of the name
      {"notep", 4, "Text Editor", {}},               // a keyword
      {"dateie", 4, "Dateien", "de_DE"},             // a localised name, shown localised
      {"lovel", 2, "Ada Lovelace", {}},              // family name
      {"grace.hop", 2, "Grace Hopper", {}},          // e-mail
      {"analytical eng", 2, "Ada Lovelace", {}},     // organisation, two words
      {"fushimi", 5, "Trip to Kyoto", {}},           // a word of a note's body
      {"quarterly", 5, "Quarterly planning", {}},    // heading below the first line
      {"emile", 2, "Émile Durand", {}},              // accents removed
      {"петр", 2, "Иван Петров", {}},                // Cyrillic
      {"都庁", 4, "東京都庁ガイド", {}},             // CJK word inside a title
      {"เชียงใหม่", 5, "บันทึกการเดินทาง", {}},      // Thai word inside a body
      {"brigh", 19, "Displays", {}},                 // a settings panel's keyword
  };
  for (const Case& c : cases) {
    QueryOptions options;
    options.language = c.language;
    EXPECT_THAT(TitlesIn(daemon.search(c.text, options), c.domain), Contains(c.title)) << c.text;
  }
  // Entries that ask not to be shown and malformed files are not found.
  for (const char* hidden : {"hidden helper", "removed tool", "other desktop", "never finished"})
    EXPECT_THAT(TitlesIn(daemon.search(hidden), 4), IsEmpty()) << hidden;
}

TEST(SearchdEndToEndTest, CalculatorAndConversionAnswerFromTheText) {
#if defined(__SANITIZE_THREAD__)
  // libqalculate (not instrumented) computes on a thread of its own and
  // writes the answer into the caller's stack through synchronisation the
  // sanitizer cannot see; the daemon's own threads are checked by the
  // other end-to-end tests.
  GTEST_SKIP() << "the calculator library runs threads ThreadSanitizer cannot follow";
#endif
  Searchd daemon;
  EXPECT_THAT(TitlesIn(daemon.search("2+2"), 24), ElementsAre("4"));
  EXPECT_THAT(TitlesIn(daemon.search("2+3*4"), 24), ElementsAre("14"));
  const std::vector<std::string> miles = TitlesIn(daemon.search("10 km to miles"), 25);
  ASSERT_EQ(miles.size(), 1u);
  EXPECT_EQ(miles[0].rfind("6.21", 0), 0u) << miles[0];
  EXPECT_THAT(TitlesIn(daemon.search("100 usd to eur"), 25), Not(IsEmpty()));
  for (const char* text : {"files", "2", "grace hopper 2"}) {
    const std::vector<SeenSection> sections = daemon.search(text);
    EXPECT_THAT(TitlesIn(sections, 24), IsEmpty()) << text;
    EXPECT_THAT(TitlesIn(sections, 25), IsEmpty()) << text;
  }
}

TEST(SearchdEndToEndTest, DomainsBundlesAndCountLimitTheAnswer) {
  Searchd daemon;
  // "e" matches items of every domain.
  const std::vector<SeenSection> all = daemon.search("e");
  ASSERT_GT(TitlesIn(all, 4).size(), 3u);
  ASSERT_FALSE(TitlesIn(all, 2).empty());

  QueryOptions onlyContacts;
  onlyContacts.domains = {2};
  for (const SeenSection& s : daemon.search("e", onlyContacts)) EXPECT_EQ(s.domain, 2u);

  QueryOptions three;
  three.maxCount = 3;
  const std::vector<SeenSection> limited = daemon.search("e", three);
  EXPECT_EQ(TitlesIn(limited, 4).size(), 3u);
  // The limit keeps the best: the first three of the unlimited answer.
  const std::vector<std::string> allApps = TitlesIn(all, 4);
  EXPECT_EQ(TitlesIn(limited, 4), std::vector<std::string>(allApps.begin(), allApps.begin() + 3));

  QueryOptions noEditor;
  noEditor.disabledBundles = {"org.kxsample.Editor"};
  EXPECT_THAT(TitlesIn(daemon.search("text edi"), 4), Contains("Text Editor"));
  EXPECT_THAT(TitlesIn(daemon.search("text edi", noEditor), 4), Not(Contains("Text Editor")));
}

TEST(SearchdEndToEndTest, EngagementRaisesTheEngagedItem) {
  Searchd daemon;
  QueryOptions apps;
  apps.domains = {4};
  for (const char* text : {"c", "cal"}) {
    std::vector<SeenSection> before = daemon.search(text, apps);
    ASSERT_EQ(before.size(), 1u) << text;
    ASSERT_GT(before[0].results.size(), 1u) << text;
    const auto last = before[0].results.back();
    KXSearchResultSection section;
    section.setDomain(4);
    auto engagement = KXFeedbackEngagement::feedbackForSearchResult(*last, section);
    daemon.connection()->sendFeedback(engagement);
    // Feedback is one-way: poll until the daemon has counted it.
    std::vector<std::string> titles;
    for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
         std::chrono::steady_clock::now() < deadline;) {
      titles = TitlesIn(daemon.search(text, apps), 4);
      if (!titles.empty() && titles[0] == last->title()) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_FALSE(titles.empty());
    EXPECT_EQ(titles[0], *last->title()) << text;
  }
  // The zero-keyword query shows the engaged items, each once although
  // they are also among the most used applications.
  const std::vector<std::string> suggested = TitlesIn(daemon.search(""), 22);
  EXPECT_THAT(suggested, Not(IsEmpty()));
  EXPECT_EQ(std::set<std::string>(suggested.begin(), suggested.end()).size(), suggested.size());
}

TEST(SearchdEndToEndTest, ARestartedDaemonAnswersTheResentQueryTheSame) {
  Searchd daemon;
  const std::vector<std::string> expected = TitlesIn(daemon.search("mus"), 4);
  ASSERT_THAT(expected, Contains("Music Player"));
  const pid_t first = daemon.daemonPid();
  ASSERT_GT(first, 0);
  // Killed while the query is on its way (stopped first, so that it cannot
  // answer from its cache before the kill): the connection re-sends it to
  // the daemon that the launcher starts for it.
  ASSERT_EQ(kill(first, SIGSTOP), 0);
  auto [token, delegate] = daemon.start("mus");
  ASSERT_EQ(kill(first, SIGKILL), 0);
  ASSERT_TRUE(delegate->events.waitFor(1));
  EXPECT_EQ(TitlesIn(delegate->sections(), 4), expected);
  daemon.connection()->cancelQuery(token);
  // The answer came from a new daemon (the old one may still be reaped).
  pid_t now = daemon.daemonPid();
  for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
       (now == first || now == 0) && std::chrono::steady_clock::now() < deadline;
       now = daemon.daemonPid())
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_NE(now, first);
  EXPECT_NE(now, 0);
}

}  // namespace
}  // namespace kx::test
