#include "kx/KXContentResult.h"

#include <gtest/gtest.h>

namespace {

TEST(KXContentResultTest, FactoriesTakeTheDocumentedFields) {
  KXSearchResult source;
  source.setTitle("t");
  source.setUserActivityRequiredString("not carried by copyTo");
  auto a = KXContentResult::resultWithSearchResult(source, "ext", "text");
  EXPECT_EQ(a->title(), "t");
  EXPECT_FALSE(a->userActivityRequiredString());
  EXPECT_EQ(a->extid(), "ext");
  EXPECT_EQ(a->content(), "text");

  // The title is taken even when absent, the other lines only when present.
  auto b = KXContentResult::resultWithIdentifier("ext", std::nullopt, "", std::nullopt, "aux",
                                                 std::nullopt, "app://open", std::nullopt);
  EXPECT_FALSE(b->hasTitle() || b->hasSummary() || b->hasAuxiliarySubtitle() || b->content());
  EXPECT_EQ(b->subtitle(), "");
  EXPECT_EQ(b->url(), "app://open");
}

TEST(KXContentResultTest, ExtidAndContentStayInMemory) {
  auto c = KXContentResult::resultWithIdentifier("ext", "t", std::nullopt, std::nullopt,
                                                 std::nullopt, std::nullopt, "app://x", "text");
  KXSearchResult plain;
  plain.setTitle("t");
  plain.setUrl("app://x");
  EXPECT_EQ(c->data(), plain.data());
  EXPECT_EQ(WireCodable::FromData<KXSearchResult>(c->data())->className(), "KXSearchResult");

  auto copy = std::dynamic_pointer_cast<KXContentResult>(c->copy());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->title(), "t");
  EXPECT_FALSE(copy->extid() || copy->content());
}

}  // namespace
