#include "kx/KXSearchQuery.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <set>
#include <thread>

#include "kx/exception.h"

namespace {

using DomainList = KXSearchQuery::DomainList;

uint64_t MonotonicNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

TEST(KXSearchQueryTest, FirstQueryOfAProcessHasIDOne) {
  EXPECT_EXIT(std::exit(KXSearchQuery::initWithSearchString("a")->queryID() == 1 ? 0 : 1),
              testing::ExitedWithCode(0), "");
}

TEST(KXSearchQueryTest, DomainCountIsBoundedByTheNumberOfDomains) {
  DomainList all(27);
  for (uint32_t i = 0; i < 27; ++i) all[i] = i;
  EXPECT_EQ(KXSearchQuery::initWithSearchString("x", "en", all, std::nullopt)->searchDomains(),
            all);
  all.push_back(0);
  try {
    KXSearchQuery::initWithSearchString("x", "en", all, std::nullopt);
    FAIL() << "28 domains accepted";
  } catch (const kx::InternalInconsistencyException& e) {
    EXPECT_EQ(e.reason(), "search domain count cannot exceed the total number of search domains");
  }
}

TEST(KXSearchQueryTest, MalformedUtf8IsReadAsReplacementCharacters) {
  // Such a text could not travel to the daemon; valid text is kept as is.
  EXPECT_EQ(KXSearchQuery::initWithSearchString(std::string("Kwa\xC3me \xFF"))->searchString(),
            "Kwa\uFFFDme \uFFFD");
  EXPECT_EQ(KXSearchQuery::initWithSearchString("Émile 東京")->searchString(), "Émile 東京");
}

TEST(KXSearchQueryTest, AbsentDomainsMeanEveryUserVisibleDomain) {
  setenv("KX_DEVICE_KIND", "handset", 1);
  auto query = KXSearchQuery::initWithSearchString("x");
  unsetenv("KX_DEVICE_KIND");
  EXPECT_EQ(query->searchDomains().size(), 24u);
  EXPECT_EQ(query->keyboardLanguage(), std::nullopt);
  EXPECT_EQ(query->disabledBundles(), std::nullopt);
  // An empty list is kept apart from an absent one.
  EXPECT_TRUE(KXSearchQuery::initWithSearchString("x", "en", DomainList{}, std::nullopt)
                  ->searchDomains()
                  .empty());
}

TEST(KXSearchQueryTest, RedirectedQueryKeepsIdentityButNotSettings) {
  auto original = KXSearchQuery::initWithSearchString("pasta", "it", "en", DomainList{2, 3},
                                                      std::vector<std::string>{"com.a"});
  original->setGrouped(true);
  original->setMaxCount(13);
  original->setInternal(true);
  original->setDictationResponse(kx::Value(kx::MakeDictionary({{"k", 1}})));
  auto redirected = KXSearchQuery::initWithQuery(*original, DomainList{5});

  EXPECT_NE(redirected, original);
  EXPECT_TRUE(redirected->isEqual(*original));
  EXPECT_TRUE(static_cast<const kx::Object&>(*original).isEqual(*redirected));
  EXPECT_EQ(redirected->hash(), original->hash());
  EXPECT_EQ(redirected->creationTime(), original->creationTime());
  EXPECT_EQ(redirected->creationStamp(), original->creationStamp());
  EXPECT_EQ(redirected->searchString(), "pasta");
  EXPECT_EQ(redirected->disabledBundles(), std::vector<std::string>{"com.a"});
  EXPECT_EQ(redirected->searchDomains(), DomainList{5});
  EXPECT_FALSE(redirected->grouped() || redirected->internal() || redirected->maxCount());
  EXPECT_TRUE(redirected->dictationResponse().isNil());
  // Making the redirected query consumed a counter value.
  EXPECT_EQ(KXSearchQuery::initWithSearchString("next")->queryID(), original->queryID() + 2);
  EXPECT_FALSE(KXSearchQuery::initWithSearchString("pasta")->isEqual(*original));
}

TEST(KXSearchQueryTest, CopyingSharesAndStampsAreTakenAtCreation) {
  const double before = kx::Date::Now().secondsSinceReferenceDate;
  const uint64_t stampBefore = MonotonicNow();
  auto query = KXSearchQuery::initWithSearchString("x");
  EXPECT_EQ(query->copyWithZone(), query);
  EXPECT_GE(query->creationStamp(), stampBefore);
  EXPECT_LE(query->creationStamp(), MonotonicNow());
  EXPECT_GE(query->creationTime(), before);
  EXPECT_LE(query->creationTime(), kx::Date::Now().secondsSinceReferenceDate);
  EXPECT_GT(query->creationTime(), 7e8);  // seconds since 2001, not since 1970
  EXPECT_LT(query->creationTime(), 3e9);
}

TEST(KXSearchQueryTest, CancellationIsSeenOnOtherThreads) {
  auto query = KXSearchQuery::initWithSearchString("x");
  EXPECT_FALSE(query->cancelled());
  EXPECT_EQ(query->cancellationTime(), 0);
  std::thread poller([&] {
    while (!query->cancelled()) std::this_thread::yield();
    EXPECT_GE(query->cancellationTime(), query->creationTime());
  });
  query->cancel();
  poller.join();
  EXPECT_TRUE(query->cancelled());
}

TEST(KXSearchQueryTest, IDsStayUniqueUnderConcurrentCreation) {
  constexpr int kThreads = 4, kPerThread = 500;
  std::vector<std::vector<int64_t>> ids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&ids, t] {
      for (int i = 0; i < kPerThread; ++i)
        ids[t].push_back(
            KXSearchQuery::initWithSearchString("q", "en", DomainList{0}, std::nullopt)
                ->queryID());
    });
  for (auto& thread : threads) thread.join();
  std::set<int64_t> unique;
  for (const auto& list : ids) unique.insert(list.begin(), list.end());
  EXPECT_EQ(unique.size(), size_t{kThreads * kPerThread});
  EXPECT_EQ(*unique.rbegin() - *unique.begin(), kThreads * kPerThread - 1);
}

}  // namespace
