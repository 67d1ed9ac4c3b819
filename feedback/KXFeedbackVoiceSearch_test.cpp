#include "kx/KXFeedbackVoiceSearch.h"

#include <gtest/gtest.h>

#include "feedback/feedback_testing.h"

namespace kx::test {
namespace {

TEST(KXFeedbackVoiceSearchTest, SpeechResultsGrowAndSetTheInput) {
  auto record = KXFeedbackVoiceSearch::feedback();
  EXPECT_EQ(record->micButtonStartTime(), record->timestamp());
  record->addSpeechResult("piz", false, 1.0, 0, 0);
  record->addSpeechResult("pizza", true, 2.0, 5, 6);
  EXPECT_EQ(record->input(), "pizza");
  ASSERT_TRUE(record->speechResults());
  ASSERT_EQ(record->speechResults()->size(), 2u);
  EXPECT_EQ((*record->speechResults())[1]->text(), "pizza");
  EXPECT_EQ((*record->speechResults())[1]->skylumeResultsSize(), 6u);
}

TEST(KXFeedbackVoiceSearchTest, RestoredRecordDropsNewSpeechResultsButTakesTheirText) {
  auto record = KXFeedbackVoiceSearch::feedback();
  record->addSpeechResult("one", true, 1.0, 0, 0);
  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  restored->addSpeechResult("two", true, 2.0, 0, 0);
  EXPECT_EQ(restored->input(), "two");
  ASSERT_EQ(restored->speechResults()->size(), 1u);
  EXPECT_EQ((*restored->speechResults())[0]->text(), "one");
}

TEST(KXFeedbackVoiceSearchTest, StopReasonsAccumulateInArrivalOrder) {
  auto record = KXFeedbackVoiceSearch::feedback();
  record->dictationStoppedReason("a");
  record->dictationStoppedReason("b");
  record->dictationStoppedReason("c", 42.0);
  EXPECT_EQ(record->dictationStopReason(), "a,b,c");
  EXPECT_EQ(record->dictationStopTime(), 42.0);
}

}  // namespace
}  // namespace kx::test
