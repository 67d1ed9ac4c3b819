#include "kx/KXFeedbackResult.h"

#include <gtest/gtest.h>

#include "feedback/feedback_testing.h"

namespace kx::test {
namespace {

TEST(KXFeedbackResultTest, ArchivesItsFieldsButNeverTheInProcessOnes) {
  auto record = KXFeedback::feedback();
  FillFeedbackFields(*record);
  // Every field has a value of its own; the three booleans differ between
  // the two fillings, so that any two of their keys swapped show.
  FieldList fields = {{"domain", "-2"},
                      {"flags", "-5"},
                      {"fbr", "\"fbr-1\""},
                      {"activitybundleID", "\"a.b\""},
                      {"activityIdentifier", "\"activity-1\""},
                      {"activityRequiredString", "\"required\""},
                      {"activityTitle", "\"title\""},
                      {"activityIsPublic", "0"},
                      {"activitySecondaryString", "\"secondary\""},
                      {"activityData", "<000102>"},
                      {"topHit", "1"},
                      {"activityType", "\"type\""},
                      {"hasAssociatedUserActivity", "1"},
                      {"lastSearchQuery", "\"last\""},
                      {"url", "\"https://x.example/\""}};
  ExpectArchivedFields(ArchiveOf(record), "KXFeedbackResult", fields);
  KXFeedbackResult& filled = *(*record->results())[0];
  filled.setActivityIsPublic(true);
  filled.setTopHit(false);
  for (auto& [key, value] : fields) {
    if (key == "activityIsPublic") value = "1";
    if (key == "topHit") value = "0";
  }
  ExpectArchivedFields(ArchiveOf(record), "KXFeedbackResult", fields);

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
