#include "feedback/KXFeedbackSpeechResult.h"

#include <gtest/gtest.h>

#include <limits>

#include "feedback/KXFeedbackVoiceSearch.h"
#include "feedback/feedback_test_support.h"

namespace kx::test {
namespace {

TEST(KXFeedbackSpeechResultTest, SurvivesTheArchiveWithFullWidthSizes) {
  constexpr uint64_t kHuge = std::numeric_limits<uint64_t>::max();
  auto record = KXFeedbackVoiceSearch::feedback();
  record->setSpeechResults(KXFeedbackVoiceSearch::SpeechResultList{
      std::make_shared<KXFeedbackSpeechResult>("hello", true, 10.5, kHuge, 3)});
  const Bytes bytes = ArchiveOf(record);
  EXPECT_EQ(ArchivedKeys(bytes, "KXFeedbackSpeechResult"),
            (std::set<std::string>{"text", "stable", "timestamp", "webResultsSize",
                                   "skylumeResultsSize"}));

  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  const KXFeedbackSpeechResult& s = *(*restored->speechResults())[0];
  EXPECT_EQ(s.text(), "hello");
  EXPECT_TRUE(s.stable());
  EXPECT_EQ(s.timestamp(), 10.5);
  EXPECT_EQ(s.webResultsSize(), kHuge);
  EXPECT_EQ(s.skylumeResultsSize(), 3u);
}

}  // namespace
}  // namespace kx::test
