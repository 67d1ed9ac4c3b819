#include "model/KXContentResult.h"

#include <gtest/gtest.h>

namespace {

TEST(KXContentResultTest, FactoriesTakeTheDocumentedFields) {
  KXSearchResult source;
  source.setTitle("t");
  source.setUserActivityRequiredString("dropped by copyTo");
  source.setResultScore(1.5);
  auto a = KXContentResult::resultWithSearchResult(source, "ext", "text");
  EXPECT_EQ(a->title(), "t");
  EXPECT_FALSE(a->userActivityRequiredString());
  EXPECT_EQ(a->resultScore(), 1.5);
  EXPECT_EQ(a->extid(), "ext");
  EXPECT_EQ(a->content(), "text");

  auto b = KXContentResult::resultWithIdentifier("ext", std::nullopt, "", std::nullopt, "aux",
                                                 std::nullopt, "app://open", std::nullopt);
  EXPECT_EQ(b->extid(), "ext");
  EXPECT_FALSE(b->hasTitle());
  EXPECT_EQ(b->subtitle(), "");
  EXPECT_FALSE(b->hasSummary() || b->hasAuxiliarySubtitle());
  EXPECT_EQ(b->auxiliaryTitle(), "aux");
  EXPECT_EQ(b->url(), "app://open");
  EXPECT_FALSE(b->content());
}

TEST(KXContentResultTest, ExtidAndContentStayInMemory) {
  auto c = KXContentResult::resultWithIdentifier("ext", "t", std::nullopt, std::nullopt,
                                                 std::nullopt, std::nullopt, "app://x", "text");
  KXSearchResult plain;
  plain.setTitle("t");
  plain.setUrl("app://x");
  EXPECT_EQ(c->data(), plain.data());

  auto back = WireCodable::FromData<KXSearchResult>(c->data());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->className(), "KXSearchResult");

  std::shared_ptr<KXSearchResult> copy = c->copy();
  auto content = std::dynamic_pointer_cast<KXContentResult>(copy);
  ASSERT_TRUE(content);
  EXPECT_EQ(content->title(), "t");
  EXPECT_FALSE(content->extid() || content->content());
}

}  // namespace
