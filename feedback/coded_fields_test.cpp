#include "feedback/coded_fields.h"

#include <gtest/gtest.h>

#include "kx/KXFeedbackEngagement.h"
#include "feedback/feedback_testing.h"

namespace kx::test {
namespace {

// Decodes a forged record of `className` whose keys `encode` writes.
std::shared_ptr<KXFeedback> DecodeForged(std::string className,
                                         std::function<void(KeyedArchiver&)> encode) {
  RegisterFeedbackClasses();
  return UnarchivedFeedbackWithData(ForgedArchive(std::move(className), std::move(encode)));
}

TEST(CodedFieldsTest, MissingKeysDecodeAsAbsentZeroAndFalse) {
  auto record = std::dynamic_pointer_cast<KXFeedbackEngagementMaps>(
      DecodeForged("KXFeedbackEngagementMaps", [](KeyedArchiver&) {}));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->timestamp(), 0.0);  // from the archive, not the clock
  EXPECT_FALSE(record->input());
  EXPECT_FALSE(record->results());
  EXPECT_FALSE(record->engagementOnCard());
  EXPECT_EQ(record->feedbackType(), 0);
}

TEST(CodedFieldsTest, RestrictedFieldHoldingAnotherClassFailsTheRecord) {
  auto result = std::make_shared<KXFeedbackResult>();
  const std::pair<const char*, std::function<void(KeyedArchiver&)>> forged[] = {
      {"string as number", [](KeyedArchiver& c) { c.encodeObject(Value(5), "input"); }},
      {"number as string", [](KeyedArchiver& c) { c.encodeObject(Value("1"), "domain"); }},
      {"too wide", [](KeyedArchiver& c) { c.encodeInt64(int64_t{1} << 40, "domain"); }},
      {"array as string", [](KeyedArchiver& c) { c.encodeObject(Value("x"), "geoPlaceData"); }},
      // Records travel only in record lists of their own class.
      {"record in a container",
       [&](KeyedArchiver& c) { c.encodeObject(Value(Array{Value(result)}), "geoPlaceData"); }},
      {"list of another class",
       [&](KeyedArchiver& c) { c.encodeObject(Value(Array{Value(result), Value("x")}), "results"); }},
  };
  for (const auto& [what, encode] : forged) {
    EXPECT_EQ(DecodeForged("KXFeedback", encode), nullptr) << what;
  }
}

TEST(CodedFieldsTest, UnrestrictedFieldHoldingWhatItCannotRepresentIsLeftEmpty) {
  auto record = std::dynamic_pointer_cast<KXFeedbackEngagement>(
      DecodeForged("KXFeedbackEngagement", [](KeyedArchiver& c) {
        c.encodeObject(Value(5), "cardType");
        c.encodeObject(Value("https://not-a-url-object"), "action_destination");
        c.encodeObject(Value("play"), "actionTarget");
      }));
  ASSERT_NE(record, nullptr);
  EXPECT_FALSE(record->cardType());
  EXPECT_FALSE(record->action_destination());
  EXPECT_EQ(record->actionTarget(), "play");
}

TEST(CodedFieldsTest, ARecordThatContainsItselfIsRefusedWithoutLeaking) {
  // The forged record lists itself in its place data; decoding must refuse
  // the cycle rather than build (and leak) it.
  std::weak_ptr<ForgedRecord> self;
  auto forged = std::make_shared<ForgedRecord>("KXFeedback", [&self](KeyedArchiver& c) {
    c.encodeObject(Value(Array{Value(ObjectRef(self.lock()))}), "geoPlaceData");
  });
  self = forged;
  std::optional<Bytes> bytes = KeyedArchiver::ArchivedDataWithRootObject(Value(ObjectRef(forged)));
  ASSERT_TRUE(bytes);
  RegisterFeedbackClasses();
  EXPECT_EQ(UnarchivedFeedbackWithData(*bytes), nullptr);
}

}  // namespace
}  // namespace kx::test
