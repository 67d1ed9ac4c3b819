#include "kx/KXFeedback.h"

#include <gtest/gtest.h>

#include "kx/KXFeedbackEngagement.h"
#include "kx/KXFeedbackVoiceSearch.h"
#include "feedback/feedback_testing.h"
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"

namespace kx::test {
namespace {

TEST(KXFeedbackTest, OnlyTheThreeOptionalKeysAreLeftOutWhenEmpty) {
  auto record = KXFeedback::feedback();
  record->setBundleID("");
  record->setProtectionClass("");
  // externalIdentifier stays absent; so do all other objects.
  const std::set<std::string> keys = ArchivedKeys(ArchiveOf(record), "KXFeedback");
  std::set<std::string> expected = FeedbackKeys();
  for (const char* key : {"bundleID", "protectionClass", "externalIdentifier"}) {
    expected.erase(key);
  }
  EXPECT_EQ(keys, expected);

  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  EXPECT_FALSE(restored->bundleID());
  EXPECT_FALSE(restored->input());
  EXPECT_FALSE(restored->results());
}

TEST(KXFeedbackTest, FeedbackStampsTheCreationTimeAndMakesTheReceivingClass) {
  const double before = Date::Now().secondsSinceReferenceDate;
  auto record = KXFeedbackEngagementMaps::feedback();
  const double after = Date::Now().secondsSinceReferenceDate;
  EXPECT_EQ(record->className(), "KXFeedbackEngagementMaps");
  EXPECT_GE(record->timestamp(), before);
  EXPECT_LE(record->timestamp(), after);
}

class FeedbackForSearchResultTest : public ::testing::Test {
 protected:
  FeedbackForSearchResultTest() {
    result->setIdentifier(18446744073709551615ull);
    result->setBundleID("com.example.app");
    result->setExternalIdentifier("item-7");
    result->setProtectionClass("classB");
    result->setPredictionIdentifier("prediction-9");
    result->setUrl("https://example.com/a");
    result->setTitle("A title");
    result->setFbq(Value("fbq-3"));
    result->setValue(Value("fbr-3"), "fbr");
    result->setHasAssociatedUserActivity(true);
    result->setUserActivityEligibleForPublicIndexing(true);
    section->setDomain(5);
    section->setFlags(9);
    section->setResultSetIdentifier("set-5");
  }

  std::shared_ptr<KXSearchResult> result = std::make_shared<KXSearchResult>();
  std::shared_ptr<KXSearchResultSection> section = std::make_shared<KXSearchResultSection>();
};

TEST_F(FeedbackForSearchResultTest, FillsTheRecordAndOneFeedbackResult) {
  // The record is of the receiving class, made by its own `feedback`.
  auto record = KXFeedbackVoiceSearch::feedbackForSearchResult(*result, *section);
  static_assert(std::is_same_v<decltype(record), std::shared_ptr<KXFeedbackVoiceSearch>>);
  EXPECT_EQ(record->micButtonStartTime(), record->timestamp());
  EXPECT_EQ(record->identifier(), "18446744073709551615");
  EXPECT_EQ(record->bundleID(), "com.example.app");
  EXPECT_EQ(record->externalIdentifier(), "item-7");
  EXPECT_EQ(record->protectionClass(), "classB");
  EXPECT_EQ(record->fbq(), "fbq-3");
  EXPECT_EQ(record->domain(), 5u);  // the result has no domain of its own
  EXPECT_EQ(record->predictionIdentifier(), "prediction-9");
  EXPECT_EQ(record->resultSetIdentifier(), "set-5");

  ASSERT_TRUE(record->results());
  ASSERT_EQ(record->results()->size(), 1u);
  const KXFeedbackResult& r = *(*record->results())[0];
  EXPECT_EQ(r.domain(), 5u);
  EXPECT_EQ(r.flags(), 9);
  EXPECT_EQ(r.fbr(), "fbr-3");
  EXPECT_EQ(r.activitybundleID(), "com.example.app");
  EXPECT_TRUE(r.hasAssociatedUserActivity());
  EXPECT_TRUE(r.activityIsPublic());
  EXPECT_EQ(r.url(), "https://example.com/a");
  EXPECT_FALSE(r.activityTitle());  // no activity details without a required string
}

TEST_F(FeedbackForSearchResultTest, ServerBundleWinsButActivityKeepsTheResultsOwnBundle) {
  result->setValue(Value("com.server.bundle"), "bundle_id");
  auto plain = KXFeedback::feedbackForSearchResult(*result, *section);
  EXPECT_EQ(plain->bundleID(), "com.server.bundle");
  EXPECT_EQ((*plain->results())[0]->activitybundleID(), "com.server.bundle");

  result->setUserActivityRequiredString("required");
  result->setUserActivitySecondaryString("secondary");
  result->setUserActivityData(Value::Bytes{9, 8});
  result->setUserActivityType("com.example.view");
  auto withActivity = KXFeedback::feedbackForSearchResult(*result, *section);
  const KXFeedbackResult& r = *(*withActivity->results())[0];
  EXPECT_EQ(r.activitybundleID(), "com.example.app");
  EXPECT_EQ(r.activityIdentifier(), "item-7");
  EXPECT_EQ(r.activityRequiredString(), "required");
  EXPECT_EQ(r.activitySecondaryString(), "secondary");
  EXPECT_EQ(r.activityData(), (Value::Bytes{9, 8}));
  EXPECT_EQ(r.activityTitle(), "A title");
  EXPECT_EQ(r.activityType(), "com.example.view");
}

TEST_F(FeedbackForSearchResultTest, TopHitFollowsTheSectionNotTheResult) {
  result->setSearchResultDomain(2);
  section->setDomain(0);
  auto fromTopHits = KXFeedback::feedbackForSearchResult(*result, *section);
  EXPECT_EQ(fromTopHits->domain(), 2u);
  EXPECT_TRUE((*fromTopHits->results())[0]->topHit());
  EXPECT_EQ((*fromTopHits->results())[0]->domain(), 2u);

  result->setSearchResultDomain(0);
  section->setDomain(2);
  auto fromContacts = KXFeedback::feedbackForSearchResult(*result, *section);
  EXPECT_FALSE((*fromContacts->results())[0]->topHit());
}

}  // namespace
}  // namespace kx::test
