#include "feedback/KXFeedbackResult.h"

#include <gtest/gtest.h>

#include "feedback/feedback_test_support.h"

namespace kx::test {
namespace {

TEST(KXFeedbackResultTest, ArchivesItsFieldsButNeverTheInProcessOnes) {
  auto result = std::make_shared<KXFeedbackResult>();
  result->setDomain(0xFFFFFFFEu);
  result->setFlags(-5);
  result->setTopHit(true);
  result->setFbr("fbr");
  result->setActivityIdentifier("id");
  result->setActivityRequiredString("required");
  result->setActivitySecondaryString("secondary");
  result->setActivitybundleID("a.b");
  result->setActivityTitle("title");
  result->setActivityData(Value::Bytes{0, 1, 2});
  result->setActivityType("type");
  result->setActivityIsPublic(true);
  result->setHasAssociatedUserActivity(true);
  result->setLastSearchQuery("last");
  result->setUrl("https://x");
  result->setAttributes(MakeDictionary({{"kZRItemTitle", "t"}}));
  result->setThumbnailData(Value::Bytes{7});
  result->setAppShortVersion("1.2");
  auto record = KXFeedback::feedback();
  record->setResults(KXFeedback::ResultList{result});

  const Bytes bytes = ArchiveOf(record);
  EXPECT_EQ(ArchivedKeys(bytes, "KXFeedbackResult"),
            (std::set<std::string>{"domain", "flags", "topHit", "fbr", "activityIdentifier",
                                   "activityRequiredString", "activitySecondaryString",
                                   "activitybundleID", "activityTitle", "activityData",
                                   "activityType", "activityIsPublic",
                                   "hasAssociatedUserActivity", "lastSearchQuery", "url"}));

  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  const KXFeedbackResult& r = *(*restored->results())[0];
  EXPECT_EQ(r.domain(), 0xFFFFFFFEu);
  EXPECT_EQ(r.flags(), -5);
  EXPECT_TRUE(r.activityIsPublic());
  EXPECT_EQ(r.activityData(), (Value::Bytes{0, 1, 2}));
  EXPECT_FALSE(r.attributes());
  EXPECT_FALSE(r.thumbnailData());
  EXPECT_FALSE(r.appShortVersion());
}

TEST(KXFeedbackResultTest, AbsentAndNullEntriesOfTheResultListSurvive) {
  auto record = KXFeedback::feedback();
  record->setResults(KXFeedback::ResultList{nullptr, std::make_shared<KXFeedbackResult>()});
  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  ASSERT_EQ(restored->results()->size(), 2u);
  EXPECT_EQ((*restored->results())[0], nullptr);
  EXPECT_NE((*restored->results())[1], nullptr);
}

}  // namespace
}  // namespace kx::test
