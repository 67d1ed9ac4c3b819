#include "kx/KXFeedbackResult.h"

#include <gtest/gtest.h>

#include "feedback/feedback_testing.h"

namespace kx::test {
namespace {

TEST(KXFeedbackResultTest, ArchivesItsFieldsButNeverTheInProcessOnes) {
  auto record = KXFeedback::feedback();
  FillFeedbackFields(*record);
  EXPECT_EQ(ArchivedKeys(ArchiveOf(record), "KXFeedbackResult"),
            (std::set<std::string>{"domain", "flags", "topHit", "fbr", "activityIdentifier",
                                   "activityRequiredString", "activitySecondaryString",
                                   "activitybundleID", "activityTitle", "activityData",
                                   "activityType", "activityIsPublic",
                                   "hasAssociatedUserActivity", "lastSearchQuery", "url"}));

  auto restored = RoundTrip(record);  // checks every archived field
  ASSERT_NE(restored, nullptr);
  ASSERT_EQ(restored->results()->size(), 2u);
  EXPECT_EQ((*restored->results())[1], nullptr);  // a null entry stays one
  const KXFeedbackResult& r = *(*restored->results())[0];
  EXPECT_EQ(r.domain(), 0xFFFFFFFEu);
  EXPECT_FALSE(r.attributes());
  EXPECT_FALSE(r.thumbnailData());
  EXPECT_FALSE(r.appShortVersion());
}

}  // namespace
}  // namespace kx::test
