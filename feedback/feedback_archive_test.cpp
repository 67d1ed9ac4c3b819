#include "feedback/feedback_archive.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "kx/KXFeedbackContext.h"
#include "kx/KXFeedbackEngagement.h"
#include "kx/KXFeedbackRender.h"
#include "kx/KXFeedbackSearch.h"
#include "kx/KXFeedbackVoiceSearch.h"
#include "feedback/feedback_testing.h"

namespace kx::test {
namespace {

constexpr uint64_t kHuge = std::numeric_limits<uint64_t>::max();

template <class T>
std::shared_ptr<T> Filled() {
  auto record = T::feedback();
  FillFeedbackFields(*record);
  return record;
}

template <class E>
std::shared_ptr<E> FilledEngagement() {
  auto e = Filled<E>();
  e->setUserReturnedToResultsList(true);
  e->setEngagementOnCard(true);
  e->setCardType("card");
  e->setAction_destination(URL::WithString("https://example.com/x"));
  e->setLastSearchQuery("last");
  e->setDisplayPosition(-3);
  e->setResultScore(0.75);
  e->setSectionScore(1.5);
  e->setActionTarget("play");
  return e;
}

struct RecordCase {
  const char* className;
  std::function<std::shared_ptr<KXFeedback>()> make;  // every field set
  std::set<std::string> ownKeys;
};

const std::set<std::string> kEngagementKeys = {
    "userReturnedToResultsList", "engagementOnCard", "cardType", "action_destination",
    "lastSearchQuery", "displayPosition", "resultScore", "sectionScore", "actionTarget"};

const RecordCase kCases[] = {
    {"KXFeedback", [] { return Filled<KXFeedback>(); }, {}},
    {"KXFeedbackSearch",
     [] {
       auto s = Filled<KXFeedbackSearch>();
       s->setQueryId(Number::Int64(77));
       return s;
     },
     {"queryId"}},
    {"KXFeedbackVoiceSearch",
     [] {
       auto v = Filled<KXFeedbackVoiceSearch>();
       v->setVoiceIdentifier("voice-1");
       v->setHeaders(MakeDictionary({{"X-Id", "7"}}));
       v->addSpeechResult("hello", true, 1.5, kHuge, 2);
       v->dictationStoppedReason("done", 9.0);
       v->setSpeechDetectedTime(2.0);
       v->setDictationStartTime(3.0);
       v->setMicButtonStopTime(4.0);
       v->setDoneButtonTime(5.0);
       return v;
     },
     {"voiceIdentifier", "headers", "speechResults", "dictationStopReason", "speechDetectedTime",
      "dictationStartTime", "dictationStopTime", "micButtonStartTime", "micButtonStopTime",
      "doneButtonTime"}},
    {"KXFeedbackRender",
     [] {
       auto r = Filled<KXFeedbackRender>();
       r->setTriggerTimestamp(321.5);
       r->setHiddentExtResults(Array{Value(MakeDictionary({{"type", "dup"}, {"id", "local:x"}}))});
       r->setLeftOfHome(true);
       r->setSections(Array{Value("contacts"), Value(3)});
       return r;
     },
     {"trigger_timestamp", "hiddentExtResults", "leftOfHome", "sections"}},
    {"KXFeedbackEngagement", [] { return FilledEngagement<KXFeedbackEngagement>(); },
     kEngagementKeys},
    {"KXFeedbackEngagementMaps",
     [] {
       auto m = FilledEngagement<KXFeedbackEngagementMaps>();
       m->setFeedbackType(-201);
       return m;
     },
     [] {
       std::set<std::string> keys = kEngagementKeys;
       keys.insert("maps_feedback_type");
       return keys;
     }()},
    {"KXFeedbackAbandonment",
     [] {
       auto a = Filled<KXFeedbackAbandonment>();
       a->setReason(kHuge);
       return a;
     },
     {"reason"}},
    {"KXFeedbackContext",
     [] {
       auto c = Filled<KXFeedbackContext>();
       c->setStart_ts(12.0);
       c->setStart_method("swipe");
       c->setLast_search("pizza");
       return c;
     },
     {"start_ts", "start_method", "last_search"}},
};

TEST(FeedbackArchiveTest, EveryRecordClassSurvivesTheArchiveUnderItsFixedKeys) {
  for (const RecordCase& c : kCases) {
    SCOPED_TRACE(c.className);
    std::shared_ptr<KXFeedback> record = c.make();
    EXPECT_EQ(record->className(), c.className);
    EXPECT_EQ(ArchivedKeys(ArchiveOf(record), c.className), FeedbackKeys(c.ownKeys));
    // RoundTrip compares the restored record's archive with the original's,
    // so every archived field, down to the speech and feedback results, is
    // checked; the timestamp is the archived one, not the decoding time.
    std::shared_ptr<KXFeedback> restored = RoundTrip(record);
    ASSERT_NE(restored, nullptr);
    EXPECT_EQ(restored->className(), c.className);
    EXPECT_EQ(restored->timestamp(), record->timestamp());
  }
}

TEST(FeedbackArchiveTest, RootMustBeAFeedbackRecord) {
  RegisterFeedbackClasses();
  EXPECT_EQ(UnarchivedFeedbackWithData({}), nullptr);
  for (const Value& root : {Value("KXFeedback"), Value(ObjectRef(KXFeedbackResult::feedback()))}) {
    auto bytes = KeyedArchiver::ArchivedDataWithRootObject(root);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(UnarchivedFeedbackWithData(*bytes), nullptr);
  }
}

TEST(FeedbackArchiveTest, DamagedArchivesFailCleanly) {
  const Bytes bytes = ArchiveOf(kCases[2].make());  // voice search: the deepest graph
  ASSERT_NE(UnarchivedFeedbackWithData(bytes), nullptr);
  for (size_t length = 0; length < bytes.size(); ++length) {
    EXPECT_EQ(UnarchivedFeedbackWithData(std::span(bytes.data(), length)), nullptr) << length;
  }
  // Single-byte damage decodes to some feedback record or is refused; it
  // never crashes (the sanitizer builds check the rest).
  for (size_t i = 0; i < bytes.size(); ++i) {
    Bytes damaged = bytes;
    damaged[i] ^= 0x5a;
    if (std::shared_ptr<KXFeedback> decoded = UnarchivedFeedbackWithData(damaged)) {
      EXPECT_TRUE(ArchivedFeedbackData(decoded).has_value());
    }
  }
}

}  // namespace
}  // namespace kx::test
