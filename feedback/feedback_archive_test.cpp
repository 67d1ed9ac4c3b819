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
  e->setEngagementOnCard(false);
  e->setCardType("card");
  e->setAction_destination(URL::WithString("https://example.com/x"));
  e->setLastSearchQuery("last-engaged");
  e->setDisplayPosition(-3);
  e->setResultScore(0.75);
  e->setSectionScore(1.5);
  e->setActionTarget("play");
  return e;
}

// A record class with every field set to a value of its own, and what its
// own fields (after the KXFeedback ones) must archive as, in encoding order.
// `nested` pins records that only occur inside this one.
struct RecordCase {
  const char* className;
  std::function<std::shared_ptr<KXFeedback>()> make;
  FieldList ownFields;
  std::vector<std::pair<const char*, FieldList>> nested = {};
};

const FieldList kEngagementFields = {{"userReturnedToResultsList", "1"},
                                     {"engagementOnCard", "0"},
                                     {"cardType", "\"card\""},
                                     {"action_destination", "url https://example.com/x"},
                                     {"lastSearchQuery", "\"last-engaged\""},
                                     {"displayPosition", "-3"},
                                     {"resultScore", "0.75"},
                                     {"sectionScore", "1.5"},
                                     {"actionTarget", "\"play\""}};

const RecordCase kCases[] = {
    {"KXFeedback", [] { return Filled<KXFeedback>(); }, {}},
    {"KXFeedbackSearch",
     [] {
       auto s = Filled<KXFeedbackSearch>();
       s->setQueryId(Number::Int64(77));
       return s;
     },
     {{"queryId", "int64 77"}}},
    {"KXFeedbackVoiceSearch",
     [] {
       auto v = Filled<KXFeedbackVoiceSearch>();
       v->setVoiceIdentifier("voice-1");
       v->setHeaders(MakeDictionary({{"X-Id", "7"}}));
       v->addSpeechResult("hello", true, 1.5, kHuge, 2);
       v->setInput("pizza");  // taken by the speech result; the common value again
       v->dictationStoppedReason("done", 9.5);
       v->setSpeechDetectedTime(2.5);
       v->setDictationStartTime(3.5);
       v->setMicButtonStartTime(1.25);
       v->setMicButtonStopTime(4.5);
       v->setDoneButtonTime(5.5);
       return v;
     },
     {{"voiceIdentifier", "\"voice-1\""},
      {"headers", "{X-Id = \"7\"}"},
      {"speechResults", "(KXFeedbackSpeechResult)"},
      {"dictationStopReason", "\"done\""},
      {"speechDetectedTime", "2.5"},
      {"dictationStartTime", "3.5"},
      {"dictationStopTime", "9.5"},
      {"micButtonStartTime", "1.25"},
      {"micButtonStopTime", "4.5"},
      {"doneButtonTime", "5.5"}},
     {{"KXFeedbackSpeechResult",
       {{"text", "\"hello\""},
        {"stable", "1"},
        {"timestamp", "1.5"},
        {"webResultsSize", "-1"},
        {"skylumeResultsSize", "2"}}}}},
    {"KXFeedbackRender",
     [] {
       auto r = Filled<KXFeedbackRender>();
       r->setTriggerTimestamp(321.5);
       r->setHiddentExtResults(Array{Value(MakeDictionary({{"type", "dup"}, {"id", "local:x"}}))});
       r->setLeftOfHome(true);
       r->setSections(Array{Value("contacts"), Value(3)});
       return r;
     },
     {{"trigger_timestamp", "321.5"},
      {"hiddentExtResults", "({id = \"local:x\"; type = \"dup\"})"},
      {"leftOfHome", "1"},
      {"sections", "(\"contacts\", int32 3)"}}},
    {"KXFeedbackEngagement", [] { return FilledEngagement<KXFeedbackEngagement>(); },
     kEngagementFields},
    {"KXFeedbackEngagementMaps",
     [] {
       auto m = FilledEngagement<KXFeedbackEngagementMaps>();
       m->setFeedbackType(-201);
       return m;
     },
     [] {
       FieldList fields = kEngagementFields;
       fields.emplace_back("maps_feedback_type", "-201");
       return fields;
     }()},
    {"KXFeedbackAbandonment",
     [] {
       auto a = Filled<KXFeedbackAbandonment>();
       a->setReason(kHuge);
       return a;
     },
     {{"reason", "-1"}}},
    {"KXFeedbackContext",
     [] {
       auto c = Filled<KXFeedbackContext>();
       c->setStart_ts(12.75);
       c->setStart_method("swipe");
       c->setLast_search("pasta");
       return c;
     },
     {{"start_ts", "12"}, {"start_method", "\"swipe\""}, {"last_search", "\"pasta\""}}},
};

TEST(FeedbackArchiveTest, EveryRecordClassArchivesEachFieldUnderItsOwnKeyInOrder) {
  for (const RecordCase& c : kCases) {
    SCOPED_TRACE(c.className);
    std::shared_ptr<KXFeedback> record = c.make();
    EXPECT_EQ(record->className(), c.className);
    const Bytes bytes = ArchiveOf(record);
    // The ancestor's fields come first, then the class's own.
    FieldList fields = FeedbackFields(record->timestamp());
    fields.insert(fields.end(), c.ownFields.begin(), c.ownFields.end());
    ExpectArchivedFields(bytes, c.className, fields);
    for (const auto& [className, nestedFields] : c.nested)
      ExpectArchivedFields(bytes, className, nestedFields);
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
