#include "kx/KXFeedbackContext.h"

#include <gtest/gtest.h>

#include "feedback/feedback_testing.h"

namespace kx::test {
namespace {

TEST(KXFeedbackContextTest, StartTimeLosesItsFractionInTheArchive) {
  auto record = KXFeedbackContext::feedback();
  for (const auto& [start, restoredStart] : {std::pair{12.9, 12.0}, std::pair{-12.9, -12.0}}) {
    record->setStart_ts(start);
    auto restored =
        std::dynamic_pointer_cast<KXFeedbackContext>(UnarchivedFeedbackWithData(ArchiveOf(record)));
    ASSERT_NE(restored, nullptr);
    EXPECT_EQ(restored->start_ts(), restoredStart);
  }
}

}  // namespace
}  // namespace kx::test
