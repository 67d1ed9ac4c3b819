#include <gtest/gtest.h>

#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"

namespace {

using ResultRef = std::shared_ptr<KXSearchResult>;

ResultRef Result(uint64_t identifier, std::optional<std::string> url) {
  auto r = std::make_shared<KXSearchResult>();
  r->setIdentifier(identifier);
  r->setUrl(std::move(url));
  return r;
}

TEST(EquivalenceTest, ResultsMatchOnNonZeroIdentifierOrOnURL) {
  EXPECT_TRUE(Result(5, "a")->isEquivalentToResult(*Result(5, "b")));
  EXPECT_TRUE(Result(0, "a")->isEquivalentToResult(*Result(0, "a")));
  EXPECT_TRUE(Result(1, "a")->isEquivalentToResult(*Result(2, "a")));
  EXPECT_FALSE(Result(0, std::nullopt)->isEquivalentToResult(*Result(0, std::nullopt)));
  EXPECT_FALSE(Result(0, std::nullopt)->isEquivalentToResult(*Result(0, "a")));
  EXPECT_FALSE(Result(0, "a")->isEquivalentToResult(*Result(0, std::nullopt)));
  EXPECT_FALSE(Result(1, "a")->isEquivalentToResult(*Result(2, "b")));
}

std::shared_ptr<KXSearchResultSection> Section(uint32_t domain, std::vector<ResultRef> results) {
  auto s = std::make_shared<KXSearchResultSection>();
  s->setDomain(domain);
  s->addResultsFromArray(results);
  return s;
}

TEST(EquivalenceTest, SectionsCompareTheirFirstResultsByDomain) {
  // Identifier 0 on both sides counts as the same identifier.
  EXPECT_TRUE(Section(7, {Result(0, "a")})->hasEquivalentResults(*Section(7, {Result(0, "b")})));
  EXPECT_FALSE(Section(7, {Result(1, "a")})->hasEquivalentResults(*Section(7, {Result(2, "a")})));
  EXPECT_FALSE(Section(7, {Result(1, "a")})->hasEquivalentResults(*Section(8, {Result(1, "a")})));
  // Applications are told apart by their URLs.
  EXPECT_FALSE(Section(4, {Result(3, "a")})->hasEquivalentResults(*Section(4, {Result(3, "b")})));
  EXPECT_TRUE(Section(4, {Result(3, "a")})->hasEquivalentResults(*Section(4, {Result(4, "a")})));
  // Only a single result on the other side qualifies; the receiver may
  // hold more.
  EXPECT_FALSE(Section(7, {Result(0, "a")})
                   ->hasEquivalentResults(*Section(7, {Result(0, "a"), Result(0, "b")})));
  EXPECT_TRUE(Section(7, {Result(0, "a"), Result(0, "b")})
                  ->hasEquivalentResults(*Section(7, {Result(0, "c")})));
  EXPECT_FALSE(Section(7, {})->hasEquivalentResults(*Section(7, {Result(0, "c")})));
}

}  // namespace
