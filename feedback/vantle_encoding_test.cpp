#include "feedback/vantle_encoding.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "feedback/KXFeedbackContext.h"
#include "feedback/KXFeedbackEngagement.h"
#include "feedback/KXFeedbackRender.h"
#include "feedback/KXFeedbackSearch.h"
#include "feedback/KXFeedbackVoiceSearch.h"
#include "feedback/vnt_records.h"

namespace kx {
namespace {

std::shared_ptr<KXFeedbackResult> Result(uint32_t domain, std::optional<std::string> fbr,
                                         bool topHit = false) {
  auto r = std::make_shared<KXFeedbackResult>();
  r->setDomain(domain);
  r->setFbr(std::move(fbr));
  r->setTopHit(topHit);
  return r;
}

// A donated item of bundle a.b with a public user activity.
std::shared_ptr<KXFeedbackResult> DonatedResult() {
  auto r = Result(23, std::nullopt);
  r->setActivitybundleID("a.b");
  r->setHasAssociatedUserActivity(true);
  r->setActivityIsPublic(true);
  return r;
}

TEST(VantleStringTest, NamesResultsAsTheServerExpects) {
  EXPECT_EQ(Result(16, "x")->vantleString(), "server:x");
  EXPECT_EQ(Result(17, "x", true)->vantleString(), "top_hit:x");
  EXPECT_EQ(Result(2, std::nullopt)->vantleString(), "local:com.orvex.contacts");
  EXPECT_EQ(Result(2, "f", true)->vantleString(), "top_hit:local:com.orvex.contacts:f");
  EXPECT_EQ(DonatedResult()->vantleString(), "local:a.b/lah:a.b:public");
  // No bundle for the domain: the token, else "other".
  EXPECT_EQ(Result(22, "z")->vantleString(), "z");
  EXPECT_EQ(Result(22, std::nullopt)->vantleString(), "other");
  EXPECT_EQ(Result(40, std::nullopt, true)->vantleString(), "top_hit:other");
}

TEST(VantleStringTest, DonatedItemsSuffixDependsOnActivityAndToken) {
  auto r = DonatedResult();
  r->setActivityIsPublic(false);
  EXPECT_EQ(r->vantleString(), "local:a.b/lah:a.b");
  r->setFbr("tok");  // a token replaces the activity suffix
  EXPECT_EQ(r->vantleString(), "local:a.b:tok");
  r->setFbr(std::nullopt);
  r->setHasAssociatedUserActivity(false);
  EXPECT_EQ(r->vantleString(), "local:a.b");
  r->setActivitybundleID(std::nullopt);  // a missing string prints "(null)"
  EXPECT_EQ(r->vantleString(), "local:(null)");
}

TEST(VantleStringTest, LocalActivityStringHasItsOwnPublicMarker) {
  auto r = DonatedResult();
  EXPECT_EQ(KXFeedback::localResultActivityStringFromResult(*r, std::nullopt), "lah:a.b/public");
  r->setActivityIsPublic(false);
  r->setTopHit(true);
  EXPECT_EQ(KXFeedback::localResultActivityStringFromResult(*r, std::nullopt), "top_hit:lah:a.b");
}

TEST(Sha1Test, HashesUtf8Bytes) {
  EXPECT_EQ(KXFeedback::sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(KXFeedback::sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

class ActivityInfoTest : public ::testing::Test {
 protected:
  ActivityInfoTest() {
    result.setActivityRequiredString("say \"hi\"");
    result.setActivitybundleID("a.b");
  }
  KXFeedbackResult result;
};

TEST_F(ActivityInfoTest, SummaryHasTheRequiredShapeWithUnescapedStrings) {
  Dictionary attributes = MakeDictionary({
      {"kZRItemTitle", "T"},
      {"kZRItemKeywords", Value(Array{Value("k"), Value(2)})},
      {"kZRItemDescription", Value(MakeDictionary({{"en", "d"}}))},
      {"kZRItemStarRating", Value(Array{})},
      {"kZRItemDisplayName", Value(Array{Value(Array{})})},  // nested: skipped
      {"kZRItemOther", "not selected"},
  });
  EXPECT_EQ(KXFeedback::serializedActivityInfoWithResult(result, attributes),
            "{\"activity_string\":\"say \"hi\"\", \"bundle_id\":\"a.b\", \"title\":\"(null)\", "
            "\"contentAttributes\":{\"kZRItemDescription\":{\"en\":\"d\"},"
            "\"kZRItemKeywords\":[\"k\",2],\"kZRItemStarRating\":[],\"kZRItemTitle\":\"T\"}}");
  EXPECT_EQ(KXFeedback::serializedActivityInfoWithResult(result, Dictionary{}),
            "{\"activity_string\":\"say \"hi\"\", \"bundle_id\":\"a.b\", \"title\":\"(null)\", "
            "\"contentAttributes\":{}}");
  EXPECT_FALSE(KXFeedback::serializedActivityInfoWithResult(result, std::nullopt));
}

TEST_F(ActivityInfoTest, AttributesThatJsonCannotHoldLeaveNoSummary) {
  EXPECT_FALSE(KXFeedback::serializedActivityInfoWithResult(
      result, MakeDictionary({{"kZRItemTitle", std::string("\xff\xfe")}})));
  EXPECT_FALSE(KXFeedback::serializedActivityInfoWithResult(
      result, MakeDictionary({{"kZRItemStarRating", std::nan("")}})));
  EXPECT_FALSE(KXFeedback::serializedActivityInfoWithResult(
      result, MakeDictionary({{"kZRItemKeywords",
                               Value(Array{Value(std::numeric_limits<double>::infinity())})}})));
  // Unselected attributes are never written, so they cannot spoil it.
  EXPECT_TRUE(KXFeedback::serializedActivityInfoWithResult(
      result, MakeDictionary({{"other", std::nan("")}})));
}

class ServerObjectTest : public ::testing::Test {
 protected:
  // The session started 2.5 s before the record.
  template <class T>
  std::shared_ptr<T> Make() {
    auto record = T::feedback();
    record->setInput("pizza");
    record->setKeyboardLanguage("de_DE");
    session = std::make_shared<VNTSession>(record->timestamp() - 2.5, 4);
    return record;
  }
  template <class V>
  std::shared_ptr<V> Convert(const KXFeedback& record) {
    std::shared_ptr<VNTFeedback> object = record.vantleFeedbackFromSession(*session);
    auto typed = std::dynamic_pointer_cast<V>(object);
    EXPECT_NE(typed, nullptr) << (object ? object->className() : "nothing");
    return typed;
  }
  std::shared_ptr<VNTSession> session;
};

TEST_F(ServerObjectTest, RootRecordHasNoServerObject) {
  auto record = Make<KXFeedback>();
  EXPECT_EQ(record->vantleFeedbackFromSession(*session), nullptr);
}

TEST_F(ServerObjectTest, SearchAndAbandonment) {
  auto search = Make<KXFeedbackSearch>();
  search->setQueryId(Number::Int64(12));
  auto s = Convert<VNTSearchFeedback>(*search);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->input(), "pizza");
  EXPECT_EQ(s->type(), 0);
  EXPECT_EQ(s->timestamp(), 2500);
  EXPECT_EQ(s->connectionType(), 4);
  EXPECT_EQ(s->queryId(), Number::Int64(12));
  EXPECT_FALSE(s->keyboardLanguage());

  auto abandonment = Make<KXFeedbackAbandonment>();
  abandonment->setReason(3);
  auto a = Convert<VNTAbandonmentFeedback>(*abandonment);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->method(), 3u);
  EXPECT_EQ(a->timestamp(), 2500);
  EXPECT_FALSE(a->keyboardLanguage());
}

TEST_F(ServerObjectTest, VoiceSearchTimesAreRelativeToTheMicrophone) {
  auto voice = Make<KXFeedbackVoiceSearch>();
  auto untouched = Convert<VNTVoiceSearchFeedback>(*voice);
  ASSERT_NE(untouched, nullptr);
  EXPECT_EQ(untouched->micButtonStartTime(), 0);
  EXPECT_EQ(untouched->type(), 2);

  const double mic = voice->timestamp() + 1.0;
  voice->setMicButtonStartTime(mic);
  voice->setMicButtonStopTime(mic + 0.25);
  voice->setDoneButtonTime(mic - 0.5);
  voice->setSpeechDetectedTime(std::nan(""));
  voice->addSpeechResult("pizza", true, mic + 2.0, 7, 8);
  voice->dictationStoppedReason("tap");
  voice->setHeaders(MakeDictionary({{"h", "v"}}));
  auto v = Convert<VNTVoiceSearchFeedback>(*voice);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v->micButtonStartTime(), 1000);
  EXPECT_EQ(v->micButtonStopTime(), 250);
  EXPECT_EQ(v->doneButtonTime(), -500);
  EXPECT_EQ(v->speechDetectedTime(), 0);  // NaN has a defined value
  EXPECT_EQ(v->dictationStopReason(), "tap");
  EXPECT_EQ(v->headers(), voice->headers());
  EXPECT_EQ(v->connectionType(), 4);
  ASSERT_EQ(v->speechResults().size(), 1u);
  EXPECT_EQ(v->speechResults()[0].text, "pizza");
  EXPECT_EQ(v->speechResults()[0].timestamp, 2000);
  EXPECT_EQ(v->speechResults()[0].skylumeResultsSize, 8u);
}

TEST_F(ServerObjectTest, RenderSendsAtMost31ResultStrings) {
  auto render = Make<KXFeedbackRender>();
  KXFeedback::ResultList results;
  for (int i = 0; i < 40; ++i) {
    if (i % 4 == 0) results.push_back(nullptr);  // gives nothing: does not count
    results.push_back(Result(16, std::to_string(i)));
  }
  auto activity = DonatedResult();
  activity->setActivityRequiredString("req");
  results.insert(results.begin(), activity);
  render->setResults(results);
  render->setFbq("q");
  render->setTriggerTimestamp(render->timestamp() - 1.0);
  render->setHiddentExtResults(Array{Value("h")});

  auto r = Convert<VNTRenderFeedback>(*render);
  ASSERT_NE(r, nullptr);
  ASSERT_TRUE(r->results());
  ASSERT_EQ(r->results()->size(), 31u);
  EXPECT_EQ(r->results()->front(), "lah:a.b/public");
  EXPECT_EQ((*r->results())[1], "server:0");
  EXPECT_EQ(r->results()->back(), "server:29");
  EXPECT_EQ(r->keyboardLanguage(), "de_DE");
  EXPECT_EQ(r->trigger_timestamp(), 1500);
  EXPECT_EQ(r->fbq(), "q");
  EXPECT_EQ(r->hidden_ext(), render->hiddentExtResults());
  EXPECT_FALSE(r->sections());
}

TEST_F(ServerObjectTest, EngagementAreasAndTargets) {
  auto engagement = Make<KXFeedbackEngagement>();
  engagement->setEngagementOnCard(true);
  engagement->setUserReturnedToResultsList(false);
  engagement->setActionTarget("Play");
  engagement->setDisplayPosition(4);
  auto e = Convert<VNTEngagementFeedback>(*engagement);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->action_area(), 1);  // replaced: from userReturnedToResultsList
  EXPECT_EQ(e->result_action_target(), 0);
  EXPECT_EQ(e->action_type(), 2);
  EXPECT_EQ(e->dpos(), 4);
  EXPECT_EQ(e->keyboardLanguage(), "de_DE");

  const std::pair<const char*, int64_t> targets[] = {
      {"play", 1}, {"phonecall", 2}, {"navigation", 3}, {"contact", 4}, {"other", 0}};
  for (const auto& [name, target] : targets) {
    engagement->setActionTarget(name);
    EXPECT_EQ(Convert<VNTEngagementFeedback>(*engagement)->result_action_target(), target) << name;
  }

  auto maps = Make<KXFeedbackEngagementMaps>();
  maps->setUserReturnedToResultsList(true);
  const std::pair<int32_t, int64_t> mapsTargets[] = {
      {2, 1},   {3, 2},   {12, 4},  {13, 5},  {62, 10}, {173, 6},
      {176, 7}, {177, 8}, {180, 9}, {201, 3}, {0, 0},   {14, 0}};
  for (const auto& [type, target] : mapsTargets) {
    maps->setFeedbackType(type);
    auto m = Convert<VNTMapsEngagementFeedback>(*maps);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->maps_action_target(), target) << type;
    EXPECT_EQ(m->action_area(), 2);
  }
}

TEST_F(ServerObjectTest, OnlyASingleEngagedResultIsDescribed) {
  auto engagement = Make<KXFeedbackEngagement>();
  auto local = DonatedResult();
  local->setActivityRequiredString("req");
  local->setActivityIdentifier("");
  local->setAppShortVersion("2.0");
  local->setAttributes(MakeDictionary({{"kZRItemTitle", "T"}}));
  engagement->setResults(KXFeedback::ResultList{local});
  auto e = Convert<VNTEngagementFeedback>(*engagement);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->local_result(), "lah:a.b/public");
  EXPECT_EQ(e->VntActivityBundleID(), "a.b");
  EXPECT_EQ(e->VntActivityIdentifier(), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(e->VntAppShortVersion(), "2.0");
  EXPECT_EQ(e->attributes(), local->attributes());
  EXPECT_TRUE(e->VntActivityIsPublic());
  ASSERT_TRUE(e->VntActivityInfo());
  EXPECT_NE(e->VntActivityInfo()->find("\"contentAttributes\":{\"kZRItemTitle\":\"T\"}"),
            std::string::npos);
  EXPECT_FALSE(e->fbr());

  engagement->setResults(KXFeedback::ResultList{Result(16, "srv")});
  auto server = Convert<VNTEngagementFeedback>(*engagement);
  EXPECT_EQ(server->fbr(), "srv");
  EXPECT_FALSE(server->local_result());
  EXPECT_FALSE(server->VntActivityBundleID());

  engagement->setResults(KXFeedback::ResultList{local, Result(16, "srv")});
  auto two = Convert<VNTEngagementFeedback>(*engagement);
  EXPECT_FALSE(two->fbr());
  EXPECT_FALSE(two->local_result());
  EXPECT_FALSE(two->VntActivityIdentifier());
  EXPECT_FALSE(two->VntActivityInfo());
}

TEST_F(ServerObjectTest, ContextSendsAbsoluteWholeSecondsAndNoInput) {
  auto context = Make<KXFeedbackContext>();
  context->setStart_ts(700000000.9);
  context->setStart_method("pull");
  auto c = Convert<VNTFeedbackContext>(*context);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->input(), "");
  EXPECT_EQ(c->timestamp(), 2500);
  EXPECT_EQ(c->start_ts(), 700000000);
  EXPECT_EQ(c->start_method(), "pull");
  EXPECT_FALSE(c->last_search());
  EXPECT_FALSE(c->keyboardLanguage());

  context->setStart_ts(std::numeric_limits<double>::infinity());
  EXPECT_EQ(Convert<VNTFeedbackContext>(*context)->start_ts(),
            std::numeric_limits<int64_t>::max());
}

}  // namespace
}  // namespace kx
