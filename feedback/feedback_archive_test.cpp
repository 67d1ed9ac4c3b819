#include "feedback/feedback_archive.h"

#include <gtest/gtest.h>

#include "feedback/KXFeedbackEngagement.h"
#include "feedback/KXFeedbackVoiceSearch.h"
#include "feedback/feedback_test_support.h"

namespace kx::test {
namespace {

TEST(FeedbackArchiveTest, SubclassesAreKindsOfTheirParents) {
  RegisterFeedbackClasses();
  EXPECT_TRUE(ArchivableClassIsKindOf("KXFeedbackEngagementMaps", "KXFeedbackEngagement"));
  EXPECT_TRUE(ArchivableClassIsKindOf("KXFeedbackEngagementMaps", "KXFeedback"));
  EXPECT_TRUE(ArchivableClassIsKindOf("KXFeedbackContext", "KXFeedback"));
  EXPECT_FALSE(ArchivableClassIsKindOf("KXFeedbackResult", "KXFeedback"));
}

TEST(FeedbackArchiveTest, RootMustBeAFeedbackRecord) {
  RegisterFeedbackClasses();
  EXPECT_EQ(UnarchivedFeedbackWithData({}), nullptr);
  auto string = KeyedArchiver::ArchivedDataWithRootObject(Value("KXFeedback"));
  ASSERT_TRUE(string);
  EXPECT_EQ(UnarchivedFeedbackWithData(*string), nullptr);
  auto result = KeyedArchiver::ArchivedDataWithRootObject(
      Value(ObjectRef(std::make_shared<KXFeedbackResult>())));
  ASSERT_TRUE(result);
  EXPECT_EQ(UnarchivedFeedbackWithData(*result), nullptr);
}

TEST(FeedbackArchiveTest, DamagedArchivesFailCleanly) {
  auto record = KXFeedbackVoiceSearch::feedback();
  FillFeedbackFields(*record);
  record->addSpeechResult("text", true, 1.0, 2, 3);
  const Bytes bytes = ArchiveOf(record);
  ASSERT_NE(UnarchivedFeedbackWithData(bytes), nullptr);

  // Every truncation is refused.
  for (size_t length = 0; length < bytes.size(); ++length) {
    EXPECT_EQ(UnarchivedFeedbackWithData(std::span(bytes.data(), length)), nullptr) << length;
  }
  // Single-byte damage either still decodes to a feedback record or is
  // refused; it never crashes (the sanitizer builds check the rest).
  for (size_t i = 0; i < bytes.size(); ++i) {
    Bytes damaged = bytes;
    damaged[i] ^= 0x5a;
    std::shared_ptr<KXFeedback> decoded = UnarchivedFeedbackWithData(damaged);
    if (decoded) {
      EXPECT_TRUE(ArchivedFeedbackData(decoded).has_value());
    }
  }
}

}  // namespace
}  // namespace kx::test
