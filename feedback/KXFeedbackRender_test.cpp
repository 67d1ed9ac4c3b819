#include "feedback/KXFeedbackRender.h"

#include <gtest/gtest.h>

#include "feedback/feedback_test_support.h"

namespace kx::test {
namespace {

TEST(KXFeedbackRenderTest, SurvivesTheArchiveUnderItsFixedKeys) {
  auto record = KXFeedbackRender::feedback();
  FillFeedbackFields(*record);
  record->setTriggerTimestamp(321.5);
  record->setHiddentExtResults(
      Array{Value(MakeDictionary({{"fbr", "f"}, {"type", "dup"}, {"id", "local:x"}}))});
  record->setLeftOfHome(true);
  record->setSections(Array{Value("contacts"), Value(3)});
  EXPECT_EQ(ArchivedKeys(ArchiveOf(record), "KXFeedbackRender"),
            FeedbackKeys({"trigger_timestamp", "hiddentExtResults", "leftOfHome", "sections"}));

  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->triggerTimestamp(), 321.5);
  EXPECT_TRUE(restored->leftOfHome());
  EXPECT_EQ(restored->hiddentExtResults(), record->hiddentExtResults());
  EXPECT_EQ(restored->sections(), record->sections());
}

}  // namespace
}  // namespace kx::test
