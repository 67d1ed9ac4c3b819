#include "searchd/index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "searchd/text.h"
#include "tests/support/test_environment.h"

namespace kx::searchd {
namespace {

// A generated corpus: titles of one to four words from a small vocabulary
// (so that prefixes collide a lot), some with accents, keywords and bodies,
// three domains, ten bundles, random engagement counts.
class GeneratedIndexTest : public ::testing::Test {
 protected:
  static constexpr int kItems = 1500;

  void SetUp() override {
    std::mt19937 random(1234);
    const std::vector<std::string> syllables = {"ka", "ré", "mo", "ta", "lu", "sö", "an", "bi",
                                                "ce", "do", "é", "ni", "pa", "qu", "ro", "zi"};
    for (int i = 0; i < 240; ++i) {
      std::string word;
      for (int n = 1 + static_cast<int>(random() % 4); n > 0; --n) word += syllables[random() % syllables.size()];
      vocabulary_.push_back(word);
    }
    auto words = [&](int min, int max) {
      std::string text;
      for (int n = min + static_cast<int>(random() % (max - min + 1)); n > 0; --n)
        text += (text.empty() ? "" : " ") + vocabulary_[random() % vocabulary_.size()];
      return text;
    };
    // One database per test: the tests of a run share the test root.
    index_ = std::make_unique<Index>(
        test::TestRoot() + "/generated-" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".db",
        false);
    Index::Batch batch(*index_);
    for (int i = 0; i < kItems; ++i) {
      Item item;
      item.domain = std::vector<uint32_t>{2, 4, 5}[random() % 3];
      item.bundle = "b" + std::to_string(random() % 10);
      item.identifier = "i" + std::to_string(i);
      item.title = words(1, 4);
      item.keywords = words(0, 2);
      item.body = words(0, 6);
      index_->replaceFile("generated", "/f/" + std::to_string(i), 1, {item});
      items_.push_back(item);
    }
    batch.commit();
    engagement_.assign(kItems + 1, 0);
    for (int n = 0; n < 400; ++n) {
      const int64_t id = 1 + static_cast<int64_t>(random() % kItems);
      ASSERT_TRUE(index_->recordEngagement(id, n));
      ++engagement_[id];
    }
  }

  // Ids are 1..kItems in insertion order.
  const Item& item(int64_t id) const { return items_[static_cast<size_t>(id - 1)]; }

  static bool AnyWordStartsWith(const std::string& text, const std::string& prefix) {
    for (const std::string& w : Words(Fold(text)))
      if (w.compare(0, prefix.size(), prefix) == 0) return true;
    return false;
  }

  static std::vector<int64_t> Ids(const std::vector<IndexedItem>& hits) {
    std::vector<int64_t> ids;
    for (const auto& h : hits) ids.push_back(h.id);
    return ids;
  }

  // The stored-score rule by brute force.
  std::vector<int64_t> BestByStoredScore(const std::string& prefix, uint32_t domain,
                                         const std::set<std::string>& excluded, size_t limit) const {
    std::vector<int64_t> expected;
    for (int64_t id = 1; id <= kItems; ++id) {
      const Item& it = item(id);
      if (it.domain == domain && !excluded.count(it.bundle) &&
          AnyWordStartsWith(it.title + " " + it.keywords, prefix))
        expected.push_back(id);
    }
    std::sort(expected.begin(), expected.end(), [&](int64_t a, int64_t b) {
      const double sa = StoredScore(engagement_[a], item(a).title);
      const double sb = StoredScore(engagement_[b], item(b).title);
      return sa != sb ? sa > sb : a < b;
    });
    if (expected.size() > limit) expected.resize(limit);
    return expected;
  }

  std::vector<std::string> vocabulary_;
  std::vector<Item> items_;
  std::vector<int64_t> engagement_;
  std::unique_ptr<Index> index_;
};

TEST_F(GeneratedIndexTest, ShortPrefixRuleReturnsTheBestByStoredScore) {
  std::set<std::string> prefixes;
  for (const std::string& w : vocabulary_)
    for (size_t n = 1; n <= kShortPrefixLength; ++n) prefixes.insert(CodePointPrefix(Fold(w), n));
  size_t checked = 0;
  for (const std::string& prefix : prefixes) {
    for (uint32_t domain : {2u, 4u, 5u}) {
      for (const std::set<std::string>& excluded : {std::set<std::string>{}, std::set<std::string>{"b1", "b2"}}) {
        const std::vector<int64_t> expected = BestByStoredScore(prefix, domain, excluded, 13);
        const QueryPlan plan = PlanQuery(prefix);
        ASSERT_TRUE(plan.shortPrefix) << prefix;
        SearchRequest request;
        request.domain = domain;
        request.excludedBundles = excluded;
        ASSERT_EQ(Ids(index_->search(plan, request)), expected) << prefix << " in " << domain;
        checked += !expected.empty();
      }
    }
  }
  EXPECT_GT(checked, 50u);
}

// The candidate limit is small here so that the frequent words of this
// corpus cross it: longer prefixes of them switch to the stored-score rule,
// and other texts rank only their most recent matches.
TEST_F(GeneratedIndexTest, FullTextRuleReturnsTheBestByWeightedBm25AmongItsCandidates) {
  constexpr size_t kLimit = 40;
  index_->setRankedMatchLimit(kLimit);
  std::mt19937 random(99);
  int storedScoreAnswers = 0, longStoredScoreAnswers = 0, truncatedFullText = 0, wholeFullText = 0;
  for (int round = 0; round < 150; ++round) {
    // A whole word and the first three letters of another, or one word cut
    // to three to eight letters (beyond the prefix rows: whole-word rows).
    const std::string first = Fold(vocabulary_[random() % vocabulary_.size()]);
    const std::string second = CodePointPrefix(Fold(vocabulary_[random() % vocabulary_.size()]), 3);
    const bool oneWord = round % 2 == 1;
    const std::string text = oneWord ? CodePointPrefix(first, 3 + random() % 6) : first + " " + second;
    const std::vector<std::string> queryWords = Words(text);
    const QueryPlan plan = PlanQuery(text);
    if (plan.shortPrefix) continue;  // a short word: the test above
    // Brute-force match set: every query word starts some word of the item.
    std::set<int64_t> matching;
    for (int64_t id = 1; id <= kItems; ++id) {
      const Item& it = item(id);
      const std::string all = it.title + " " + it.keywords + " " + it.body;
      if (std::all_of(queryWords.begin(), queryWords.end(),
                      [&](const std::string& w) { return AnyWordStartsWith(all, w); }))
        matching.insert(id);
    }
    // bm25 of every match, unranked and unlimited, as FTS5 computes it.
    std::map<int64_t, double> bm25;
    Statement all = index_->database().prepare(
        "SELECT rowid, bm25(items_text, 10.0, 4.0, 1.0, 6.0) FROM items_text WHERE items_text MATCH ?1");
    all.bind(1, plan.match);
    while (all.step()) bm25[all.integer(0)] = all.real(1);
    std::set<int64_t> found;
    for (const auto& [id, score] : bm25) found.insert(id);
    ASSERT_EQ(found, matching) << text;

    size_t titleMatches = 0;
    for (int64_t id = 1; id <= kItems; ++id)
      titleMatches += AnyWordStartsWith(item(id).title + " " + item(id).keywords, Fold(text));

    std::vector<int64_t> expected;
    if (!plan.prefix.empty() && (matching.size() > kLimit || titleMatches > kLimit)) {
      ASSERT_TRUE(oneWord) << text;
      expected = BestByStoredScore(Fold(text), 4, {}, 5);
      ++storedScoreAnswers;
      longStoredScoreAnswers += CodePointCount(plan.prefix) > kStoredScorePrefixLength;
    } else {
      // The most recent kLimit matches are the candidates.
      std::vector<int64_t> candidates(matching.rbegin(), matching.rend());
      if (candidates.size() > kLimit) candidates.resize(kLimit);
      (candidates.size() < matching.size() ? truncatedFullText : wholeFullText)++;
      for (int64_t id : candidates)
        if (item(id).domain == 4) expected.push_back(id);
      std::sort(expected.begin(), expected.end(), [&](int64_t a, int64_t b) {
        const double ra = bm25[a] * static_cast<double>(1 + engagement_[a]);
        const double rb = bm25[b] * static_cast<double>(1 + engagement_[b]);
        return ra != rb ? ra < rb : a < b;
      });
      if (expected.size() > 5) expected.resize(5);
    }
    SearchRequest request;
    request.domain = 4;
    request.limit = 5;
    EXPECT_EQ(Ids(index_->search(plan, request)), expected) << text;
    // The one-pass form used for several domains at once agrees.
    const Index::DomainHits hits = index_->searchDomains(plan, {2, 4}, request);
    EXPECT_EQ(hits.count(4) ? Ids(hits.at(4)) : std::vector<int64_t>{}, expected) << text;
  }
  EXPECT_GT(storedScoreAnswers, 10);
  EXPECT_GT(longStoredScoreAnswers, 3);
  EXPECT_GT(truncatedFullText, 5);
  EXPECT_GT(wholeFullText, 10);
}

Item Application(const std::string& identifier, const std::string& title) {
  Item item;
  item.domain = kDomainApplications;
  item.bundle = "x";
  item.identifier = identifier;
  item.title = title;
  return item;
}

TEST(IndexTest, ReindexingKeepsIdentityAndEngagementAndRemovesWhatWent) {
  Index index(test::TestRoot() + "/small.db", false);
  Item a = Application("a", "Alpha");
  Item b = Application("b", "Beta");
  index.replaceFile("s", "/f", 1, {a, b});
  const int64_t alpha = index.search(PlanQuery("alp"), SearchRequest::InDomain(4)).at(0).id;
  ASSERT_TRUE(index.recordEngagement(alpha, 5));
  a.title = "Alphabet";
  index.replaceFile("s", "/f", 2, {a});  // b is gone from the file
  const auto hits = index.search(PlanQuery("alphab"), SearchRequest::InDomain(4));
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].id, alpha);
  EXPECT_EQ(hits[0].engagement, 1);
  EXPECT_TRUE(index.search(PlanQuery("bet"), SearchRequest::InDomain(4)).empty());
  EXPECT_TRUE(index.search(PlanQuery("b"), SearchRequest::InDomain(4)).empty());
  EXPECT_EQ(index.fileStamps("s").at("/f"), 2);
  index.removeFile("/f");
  EXPECT_EQ(index.itemCount(), 0);
  EXPECT_TRUE(index.search(PlanQuery("a"), SearchRequest::InDomain(4)).empty());
  EXPECT_FALSE(index.recordEngagement(alpha, 6));
}

TEST(IndexTest, AnIndexOfTheEarlierLayoutGetsItsPrefixRowsAndKeepsEngagement) {
  const std::string path = test::TestRoot() + "/old.db";
  int64_t alpha = 0;
  {
    Index index(path, false);
    index.replaceFile("s", "/f", 1, {Application("a", "Alphabet Soup")});
    alpha = index.search(PlanQuery("al"), SearchRequest::InDomain(4)).at(0).id;
    ASSERT_TRUE(index.recordEngagement(alpha, 1));
    // What the earlier layout had instead of word_prefix.
    index.database().exec("DROP TABLE word_prefix; CREATE TABLE short_prefix(domain, prefix, score, item); "
                          "PRAGMA user_version = 0;");
  }
  Index index(path, false);
  for (const char* prefix : {"s", "so", "alpha"}) {
    const auto hits = index.search(PlanQuery(prefix), SearchRequest::InDomain(4));
    ASSERT_EQ(hits.size(), 1u) << prefix;
    EXPECT_EQ(hits[0].engagement, 1);
  }
  Statement old = index.database().prepare("SELECT count(*) FROM sqlite_master WHERE name = 'short_prefix'");
  ASSERT_TRUE(old.step());
  EXPECT_EQ(old.integer(0), 0);
  // Words longer than the prefix rows have a row of their own.
  Statement whole = index.database().prepare("SELECT count(*) FROM word_prefix WHERE prefix = 'alphabet'");
  ASSERT_TRUE(whole.step());
  EXPECT_EQ(whole.integer(0), 1);
}

TEST(IndexTest, AnIndexWithoutWholeWordRowsIsRefilledWithoutDuplicates) {
  const std::string path = test::TestRoot() + "/v2.db";
  {
    Index index(path, false);
    index.replaceFile("s", "/f", 1, {Application("a", "Alphabet Soup")});
    index.database().exec("DELETE FROM word_prefix WHERE length(prefix) > 5; PRAGMA user_version = 2;");
  }
  Index index(path, false);
  Statement rows = index.database().prepare("SELECT count(*), count(DISTINCT prefix) FROM word_prefix");
  ASSERT_TRUE(rows.step());
  EXPECT_EQ(rows.integer(0), 5 + 4 + 1);  // a..alpha, s..soup, alphabet
  EXPECT_EQ(rows.integer(1), 10);
}

// Past kStoredScoreWordLimit words the merge of their ranges would cost
// more than the full text: a prefix that starts more of them is answered
// from its most recent matches.
TEST(IndexTest, ALongPrefixOfTooManyWordsFallsBackToTheFullText) {
  Index index(test::TestRoot() + "/words.db", false);
  index.setRankedMatchLimit(2);
  auto addWords = [&](const std::string& stem, size_t count) {
    std::vector<Item> items;
    for (size_t i = 0; i < count; ++i)
      items.push_back(Application(stem + std::to_string(i), stem + std::string(1, char('a' + i / 26)) +
                                                                std::string(1, char('a' + i % 26))));
    index.replaceFile("s", "/" + stem, 1, items);
  };
  addWords("abcdef", kStoredScoreWordLimit);
  addWords("uvwxyz", kStoredScoreWordLimit + 1);
  EXPECT_EQ(index.search(PlanQuery("abcdef"), SearchRequest::InDomain(4)).size(), 13u);  // stored score
  EXPECT_EQ(index.search(PlanQuery("uvwxyz"), SearchRequest::InDomain(4)).size(), 2u);   // candidates
}

TEST(IndexTest, ACancelledQueryIsInterrupted) {
  Index index(test::TestRoot() + "/cancel.db", false);
  index.replaceFile("s", "/f", 1, {Application("a", "Alpha")});
  std::atomic<bool> cancelled{true};
  index.setCancelFlag(&cancelled);
  try {
    index.search(PlanQuery("alpha"), SearchRequest::InDomain(4));
    ADD_FAILURE() << "not interrupted";
  } catch (const SqliteError& e) {
    EXPECT_TRUE(e.interrupted());
  }
  cancelled = false;
  EXPECT_EQ(index.search(PlanQuery("alpha"), SearchRequest::InDomain(4)).size(), 1u);
}

}  // namespace
}  // namespace kx::searchd
