#include "model/result_set.h"

#include <gtest/gtest.h>

#include "kx/exception.h"
#include "kx/KXSearchResult.h"

namespace kx {
namespace {

using ResultRef = std::shared_ptr<KXSearchResult>;

ResultRef Result(uint64_t identifier, std::optional<std::string> extid = std::nullopt) {
  auto r = std::make_shared<KXSearchResult>();
  r->setIdentifier(identifier);
  r->setUrl("x://" + std::to_string(identifier));
  if (extid) {
    r->setExternalIdentifier(extid);
    r->setBundleID("app");
  }
  return r;
}

// Membership follows a hash table of the record's own hash and isEqual,
// whether the set is searched linearly or through its index.
TEST(ResultSetTest, MembershipNeedsTheSameHashAndEquality) {
  for (size_t filler : {size_t{0}, ResultSet::kIndexThreshold * 3}) {
    ResultSet set;
    for (size_t i = 0; i < filler; ++i) ASSERT_TRUE(set.add(Result(1000 + i)));

    auto a = Result(1, "e");
    EXPECT_TRUE(set.add(a));
    EXPECT_FALSE(set.add(a));
    // Equal by external identity, but with another identifier: another
    // hash, so both are kept.
    EXPECT_TRUE(set.add(Result(2, "e")));
    // The same hash and equal: refused, and found where the first one is.
    auto twin = Result(1, "e");
    EXPECT_FALSE(set.add(twin));
    EXPECT_EQ(set.indexOf(*twin), filler);
    // The same hash without equality: kept.
    EXPECT_TRUE(set.add(Result(1)));
    EXPECT_EQ(set.count(), filler + 3);
    EXPECT_EQ(set.at(filler), a);
  }
}

TEST(ResultSetTest, InsertAndRemoveKeepOrderAndLookups) {
  ResultSet set;
  std::vector<ResultRef> all;
  for (uint64_t i = 0; i < 40; ++i) {
    all.push_back(Result(i));
    ASSERT_TRUE(set.add(all.back()));
  }
  auto front = Result(100);
  ASSERT_TRUE(set.insert(front, 0));
  EXPECT_FALSE(set.insert(all[5], 3));
  set.removeAt(10);  // all[9]
  EXPECT_EQ(set.count(), 40u);
  EXPECT_EQ(set.indexOf(*front), 0u);
  EXPECT_EQ(set.indexOf(*all[9]), ResultSet::kNotFound);
  EXPECT_EQ(set.indexOf(*all[39]), 39u);
  for (size_t i = 1; i < set.count(); ++i) EXPECT_EQ(set.indexOf(*set.at(i)), i);
  EXPECT_THROW(set.insert(Result(200), 41), Exception);
  EXPECT_THROW(set.removeAt(40), Exception);

  while (set.count() > 2) set.removeAt(set.count() - 1);
  EXPECT_EQ(set.indexOf(*all[0]), 1u);
  set.clear();
  EXPECT_FALSE(set.contains(*all[0]));
  EXPECT_TRUE(set.add(all[0]));
}

}  // namespace
}  // namespace kx
