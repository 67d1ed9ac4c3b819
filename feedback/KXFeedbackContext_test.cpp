#include "feedback/KXFeedbackContext.h"

#include <gtest/gtest.h>

#include "feedback/feedback_test_support.h"

namespace kx::test {
namespace {

TEST(KXFeedbackContextTest, StartTimeLosesItsFractionInTheArchive) {
  auto record = KXFeedbackContext::feedback();
  FillFeedbackFields(*record);
  record->setStart_ts(12.9);
  record->setStart_method("swipe");
  record->setLast_search("pizza");
  const Bytes bytes = ArchiveOf(record);
  EXPECT_EQ(ArchivedKeys(bytes, "KXFeedbackContext"),
            FeedbackKeys({"start_ts", "start_method", "last_search"}));

  auto restored = std::dynamic_pointer_cast<KXFeedbackContext>(UnarchivedFeedbackWithData(bytes));
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->start_ts(), 12.0);
  EXPECT_EQ(restored->start_method(), "swipe");
  EXPECT_EQ(restored->last_search(), "pizza");

  record->setStart_ts(-12.9);  // cut toward zero
  auto negative = RoundTrip(record);
  ASSERT_NE(negative, nullptr);
  EXPECT_EQ(negative->start_ts(), -12.0);
}

}  // namespace
}  // namespace kx::test
