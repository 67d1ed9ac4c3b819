#include "feedback/coded_fields.h"

#include <gtest/gtest.h>

#include "feedback/KXFeedbackEngagement.h"
#include "feedback/feedback_test_support.h"

namespace kx::test {
namespace {

class CodedFieldsTest : public ::testing::Test {
 protected:
  void SetUp() override { RegisterFeedbackClasses(); }
};

TEST_F(CodedFieldsTest, MissingKeysDecodeAsAbsentZeroAndFalse) {
  auto record = std::dynamic_pointer_cast<KXFeedbackEngagementMaps>(
      UnarchivedFeedbackWithData(ForgedArchive("KXFeedbackEngagementMaps", [](KeyedArchiver&) {})));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->timestamp(), 0.0);  // from the archive, not the clock
  EXPECT_FALSE(record->input());
  EXPECT_FALSE(record->results());
  EXPECT_FALSE(record->engagementOnCard());
  EXPECT_EQ(record->feedbackType(), 0);
}

TEST_F(CodedFieldsTest, RestrictedFieldHoldingAnotherClassFailsTheRecord) {
  EXPECT_EQ(UnarchivedFeedbackWithData(ForgedArchive(
                "KXFeedback", [](KeyedArchiver& c) { c.encodeObject(Value(5), "input"); })),
            nullptr);
  EXPECT_EQ(UnarchivedFeedbackWithData(ForgedArchive(
                "KXFeedback", [](KeyedArchiver& c) { c.encodeObject(Value("x"), "geoPlaceData"); })),
            nullptr);
  // A number where an integer belongs is fine, a string is not; nor is a
  // value too wide for a 32-bit field.
  EXPECT_EQ(UnarchivedFeedbackWithData(ForgedArchive(
                "KXFeedback", [](KeyedArchiver& c) { c.encodeObject(Value("1"), "domain"); })),
            nullptr);
  EXPECT_EQ(UnarchivedFeedbackWithData(ForgedArchive(
                "KXFeedback", [](KeyedArchiver& c) { c.encodeInt64(int64_t{1} << 40, "domain"); })),
            nullptr);
}

TEST_F(CodedFieldsTest, UnrestrictedFieldHoldingWhatItCannotRepresentIsLeftEmpty) {
  auto record = std::dynamic_pointer_cast<KXFeedbackEngagement>(
      UnarchivedFeedbackWithData(ForgedArchive("KXFeedbackEngagement", [](KeyedArchiver& c) {
        c.encodeObject(Value(5), "cardType");
        c.encodeObject(Value("https://not-a-url-object"), "action_destination");
        c.encodeObject(Value("play"), "actionTarget");
        c.encodeBool(true, "engagementOnCard");
      })));
  ASSERT_NE(record, nullptr);
  EXPECT_FALSE(record->cardType());
  EXPECT_FALSE(record->action_destination());
  EXPECT_EQ(record->actionTarget(), "play");
  EXPECT_TRUE(record->engagementOnCard());
}

TEST_F(CodedFieldsTest, RecordsOnlyTravelInRecordListsOfTheirClass) {
  auto result = std::make_shared<KXFeedbackResult>();
  // A record inside a plain container is refused...
  EXPECT_EQ(UnarchivedFeedbackWithData(ForgedArchive(
                "KXFeedback",
                [&](KeyedArchiver& c) { c.encodeObject(Value(Array{Value(result)}), "geoPlaceData"); })),
            nullptr);
  // ...and so is a record list with an element of another class.
  EXPECT_EQ(UnarchivedFeedbackWithData(ForgedArchive(
                "KXFeedback",
                [&](KeyedArchiver& c) {
                  c.encodeObject(Value(Array{Value(result), Value("x")}), "results");
                })),
            nullptr);
}

TEST_F(CodedFieldsTest, ARecordThatContainsItselfIsRefusedWithoutLeaking) {
  // Encoded while alive, the forged record lists itself in its place data;
  // decoding must refuse the cycle rather than build (and leak) it.
  std::shared_ptr<ForgedRecord> forged;
  std::weak_ptr<ForgedRecord> self;
  forged = std::make_shared<ForgedRecord>("KXFeedback", [&self](KeyedArchiver& c) {
    c.encodeObject(Value(Array{Value(ObjectRef(self.lock()))}), "geoPlaceData");
  });
  self = forged;
  std::optional<Bytes> bytes = KeyedArchiver::ArchivedDataWithRootObject(Value(ObjectRef(forged)));
  ASSERT_TRUE(bytes);
  EXPECT_EQ(UnarchivedFeedbackWithData(*bytes), nullptr);
}

}  // namespace
}  // namespace kx::test
