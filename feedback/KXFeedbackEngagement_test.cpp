#include "feedback/KXFeedbackEngagement.h"

#include <gtest/gtest.h>

#include "feedback/feedback_test_support.h"

namespace kx::test {
namespace {

const std::set<std::string> kEngagementKeys = {
    "userReturnedToResultsList", "engagementOnCard", "cardType",     "action_destination",
    "lastSearchQuery",           "displayPosition",  "resultScore",  "sectionScore",
    "actionTarget"};

void FillEngagementFields(KXFeedbackEngagement& record) {
  FillFeedbackFields(record);
  record.setUserReturnedToResultsList(true);
  record.setEngagementOnCard(true);
  record.setCardType("card");
  record.setAction_destination(URL::WithString("https://example.com/x"));
  record.setLastSearchQuery("last");
  record.setDisplayPosition(-3);
  record.setResultScore(0.75);
  record.setSectionScore(1.5);
  record.setActionTarget("play");
}

TEST(KXFeedbackEngagementTest, SurvivesTheArchive) {
  auto record = KXFeedbackEngagement::feedback();
  FillEngagementFields(*record);
  EXPECT_EQ(ArchivedKeys(ArchiveOf(record), "KXFeedbackEngagement"),
            FeedbackKeys(kEngagementKeys));
  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->action_destination(), URL::WithString("https://example.com/x"));
  EXPECT_EQ(restored->displayPosition(), -3);
  EXPECT_EQ(restored->sectionScore(), 1.5);
}

TEST(KXFeedbackEngagementMapsTest, FeedbackTypeTravelsUnderTheMapsKey) {
  auto record = KXFeedbackEngagementMaps::feedback();
  FillEngagementFields(*record);
  record->setFeedbackType(-201);
  std::set<std::string> keys = FeedbackKeys(kEngagementKeys);
  keys.insert("maps_feedback_type");
  EXPECT_EQ(ArchivedKeys(ArchiveOf(record), "KXFeedbackEngagementMaps"), keys);
  auto restored = RoundTrip(record);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->feedbackType(), -201);
  EXPECT_EQ(restored->actionTarget(), "play");
}

}  // namespace
}  // namespace kx::test
