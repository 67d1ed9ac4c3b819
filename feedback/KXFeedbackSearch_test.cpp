#include "feedback/KXFeedbackSearch.h"

#include <gtest/gtest.h>

#include <limits>

#include "feedback/feedback_test_support.h"

namespace kx::test {
namespace {

TEST(KXFeedbackSearchTest, QueryIdSurvivesTheArchive) {
  auto record = KXFeedbackSearch::feedbackForQueryId(Number::Int64(77));
  FillFeedbackFields(*record);
  EXPECT_EQ(ArchivedKeys(ArchiveOf(record), "KXFeedbackSearch"), FeedbackKeys({"queryId"}));
  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->queryId(), Number::Int64(77));
}

TEST(KXFeedbackSearchTest, QueryIdOfAnotherClassFailsTheRecord) {
  RegisterFeedbackClasses();
  const Bytes forged = ForgedArchive("KXFeedbackSearch", [](KeyedArchiver& coder) {
    coder.encodeObject(Value("77"), "queryId");
  });
  EXPECT_EQ(UnarchivedFeedbackWithData(forged), nullptr);
}

TEST(KXFeedbackAbandonmentTest, ReasonSurvivesTheArchive) {
  auto record = KXFeedbackAbandonment::feedback();
  FillFeedbackFields(*record);
  record->setReason(std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(ArchivedKeys(ArchiveOf(record), "KXFeedbackAbandonment"), FeedbackKeys({"reason"}));
  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->reason(), std::numeric_limits<uint64_t>::max());
}

}  // namespace
}  // namespace kx::test
