#include "feedback/vantle_encoding.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kx/KXFeedbackContext.h"
#include "kx/KXFeedbackEngagement.h"
#include "kx/KXFeedbackRender.h"
#include "kx/KXFeedbackSearch.h"
#include "kx/KXFeedbackVoiceSearch.h"
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

// An item that application a.b donated, with a public user activity.
std::shared_ptr<KXFeedbackResult> Donated(std::optional<std::string> fbr = std::nullopt) {
  auto r = Result(23, std::move(fbr));
  r->setActivitybundleID("a.b");
  r->setHasAssociatedUserActivity(true);
  r->setActivityIsPublic(true);
  return r;
}

TEST(VantleStringTest, NamesResultsAsTheServerExpects) {
  auto privateActivity = Donated();
  privateActivity->setActivityIsPublic(false);
  auto noActivity = Donated();
  noActivity->setHasAssociatedUserActivity(false);
  noActivity->setActivitybundleID(std::nullopt);
  const std::pair<std::shared_ptr<KXFeedbackResult>, const char*> cases[] = {
      {Result(16, "x"), "server:x"},
      {Result(17, "x", true), "top_hit:x"},
      {Result(2, std::nullopt), "local:com.orvex.contacts"},
      {Result(2, "f", true), "top_hit:local:com.orvex.contacts:f"},
      {Donated(), "local:a.b/lah:a.b:public"},
      {privateActivity, "local:a.b/lah:a.b"},
      {Donated("tok"), "local:a.b:tok"},  // a token replaces the activity suffix
      {noActivity, "local:(null)"},       // a missing string prints "(null)"
      {Result(22, "z"), "z"},             // no bundle: the token, else "other"
      {Result(40, std::nullopt, true), "top_hit:other"},
  };
  for (const auto& [result, expected] : cases) EXPECT_EQ(result->vantleString(), expected);

  auto r = Donated();
  EXPECT_EQ(KXFeedback::localResultActivityStringFromResult(*r, std::nullopt), "lah:a.b/public");
  r->setActivityIsPublic(false);
  r->setTopHit(true);
  EXPECT_EQ(KXFeedback::localResultActivityStringFromResult(*r, std::nullopt), "top_hit:lah:a.b");
}

TEST(VantleStringTest, Sha1OfUtf8Bytes) {
  EXPECT_EQ(KXFeedback::sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(KXFeedback::sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(ActivityInfoTest, SummaryHasTheRequiredShapeWithUnescapedStrings) {
  KXFeedbackResult result;
  result.setActivityRequiredString("say \"hi\"");
  result.setActivitybundleID("a.b");
  const Dictionary attributes = MakeDictionary({
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
  EXPECT_FALSE(KXFeedback::serializedActivityInfoWithResult(result, std::nullopt));

  // What JSON cannot hold leaves no summary; unselected keys cannot spoil it.
  const Value unwritable[] = {Value(std::string("\xff\xfe")), Value(std::nan("")),
                              Value(Array{Value(std::numeric_limits<double>::infinity())})};
  for (const Value& v : unwritable) {
    EXPECT_FALSE(KXFeedback::serializedActivityInfoWithResult(
        result, MakeDictionary({{"kZRItemKeywords", v}})));
  }
  EXPECT_TRUE(KXFeedback::serializedActivityInfoWithResult(
      result, MakeDictionary({{"other", std::nan("")}})));
}

class ServerObjectTest : public ::testing::Test {
 protected:
  // A record with input and keyboard language, 2.5 s after the session start.
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
    auto object = std::dynamic_pointer_cast<V>(record.vantleFeedbackFromSession(*session));
    EXPECT_NE(object, nullptr);
    return object;
  }
  std::shared_ptr<VNTSession> session;
};

TEST_F(ServerObjectTest, SearchAbandonmentAndTheRootRecord) {
  EXPECT_EQ(Make<KXFeedback>()->vantleFeedbackFromSession(*session), nullptr);

  auto search = Make<KXFeedbackSearch>();
  search->setQueryId(Number::Int64(12));
  auto s = Convert<VNTSearchFeedback>(*search);
  EXPECT_EQ(s->input(), "pizza");
  EXPECT_EQ(s->type(), 0);
  EXPECT_EQ(s->timestamp(), 2500);
  EXPECT_EQ(s->connectionType(), 4);
  EXPECT_EQ(s->queryId(), Number::Int64(12));
  EXPECT_FALSE(s->keyboardLanguage());

  auto abandonment = Make<KXFeedbackAbandonment>();
  abandonment->setReason(3);
  auto a = Convert<VNTAbandonmentFeedback>(*abandonment);
  EXPECT_EQ(a->method(), 3u);
  EXPECT_EQ(a->timestamp(), 2500);
  EXPECT_FALSE(a->keyboardLanguage());
}

TEST_F(ServerObjectTest, VoiceSearchTimesAreRelativeToTheMicrophone) {
  auto voice = Make<KXFeedbackVoiceSearch>();
  EXPECT_EQ(Convert<VNTVoiceSearchFeedback>(*voice)->micButtonStartTime(), 0);

  const double mic = voice->timestamp() + 1.0;
  voice->setMicButtonStartTime(mic);
  voice->setDoneButtonTime(mic - 0.5);
  voice->setSpeechDetectedTime(std::nan(""));
  voice->addSpeechResult("pizza", true, mic + 2.0, 7, 8);
  auto v = Convert<VNTVoiceSearchFeedback>(*voice);
  EXPECT_EQ(v->type(), 2);
  EXPECT_EQ(v->micButtonStartTime(), 1000);
  EXPECT_EQ(v->doneButtonTime(), -500);
  EXPECT_EQ(v->speechDetectedTime(), 0);  // NaN has a defined value
  ASSERT_EQ(v->speechResults().size(), 1u);
  EXPECT_EQ(v->speechResults()[0].timestamp, 2000);
  EXPECT_EQ(v->speechResults()[0].skylumeResultsSize, 8u);
}

TEST_F(ServerObjectTest, RenderSendsAtMost31ResultStrings) {
  auto render = Make<KXFeedbackRender>();
  auto activity = Donated();
  activity->setActivityRequiredString("req");
  KXFeedback::ResultList results{activity};
  for (int i = 0; i < 40; ++i) {
    if (i % 4 == 0) results.push_back(nullptr);  // gives nothing: does not count
    results.push_back(Result(16, std::to_string(i)));
  }
  render->setResults(results);
  render->setTriggerTimestamp(render->timestamp() - 1.0);
  auto r = Convert<VNTRenderFeedback>(*render);
  ASSERT_TRUE(r->results());
  ASSERT_EQ(r->results()->size(), 31u);
  EXPECT_EQ(r->results()->front(), "lah:a.b/public");
  EXPECT_EQ(r->results()->back(), "server:29");
  EXPECT_EQ(r->keyboardLanguage(), "de_DE");
  EXPECT_EQ(r->trigger_timestamp(), 1500);
}

TEST_F(ServerObjectTest, EngagementAreasAndTargets) {
  auto engagement = Make<KXFeedbackEngagement>();
  engagement->setEngagementOnCard(true);
  for (const auto& [target, expected] : {std::pair{"Play", 0}, std::pair{"play", 1},
                                         std::pair{"phonecall", 2}, std::pair{"navigation", 3},
                                         std::pair{"contact", 4}}) {
    engagement->setActionTarget(target);
    auto e = Convert<VNTEngagementFeedback>(*engagement);
    EXPECT_EQ(e->result_action_target(), expected) << target;
    EXPECT_EQ(e->action_area(), 1);  // from userReturnedToResultsList, not the card
    EXPECT_EQ(e->action_type(), 2);
  }

  auto maps = Make<KXFeedbackEngagementMaps>();
  maps->setUserReturnedToResultsList(true);
  const std::pair<int32_t, int64_t> kMapsTargets[] = {
      {2, 1}, {3, 2}, {12, 4}, {13, 5}, {62, 10}, {173, 6},
      {176, 7}, {177, 8}, {180, 9}, {201, 3}, {14, 0}};
  for (const auto& [type, expected] : kMapsTargets) {
    maps->setFeedbackType(type);
    auto m = Convert<VNTMapsEngagementFeedback>(*maps);
    EXPECT_EQ(m->maps_action_target(), expected) << type;
    EXPECT_EQ(m->action_area(), 2);
  }
}

TEST_F(ServerObjectTest, OnlyASingleEngagedResultIsDescribed) {
  auto engagement = Make<KXFeedbackEngagement>();
  auto local = Donated();
  local->setActivityRequiredString("req");
  local->setActivityIdentifier("");
  local->setAppShortVersion("2.0");
  local->setAttributes(MakeDictionary({{"kZRItemTitle", "T"}}));
  engagement->setResults(KXFeedback::ResultList{local});
  auto e = Convert<VNTEngagementFeedback>(*engagement);
  EXPECT_EQ(e->local_result(), "lah:a.b/public");
  EXPECT_EQ(e->VntActivityBundleID(), "a.b");
  EXPECT_EQ(e->VntActivityIdentifier(), KXFeedback::sha1(""));
  EXPECT_EQ(e->VntAppShortVersion(), "2.0");
  EXPECT_EQ(e->attributes(), local->attributes());
  EXPECT_TRUE(e->VntActivityIsPublic());
  EXPECT_EQ(e->VntActivityInfo(), KXFeedback::serializedActivityInfoWithResult(
                                      *local, local->attributes()));
  EXPECT_FALSE(e->fbr());

  engagement->setResults(KXFeedback::ResultList{Result(16, "srv")});
  auto server = Convert<VNTEngagementFeedback>(*engagement);
  EXPECT_EQ(server->fbr(), "srv");
  EXPECT_FALSE(server->local_result());

  engagement->setResults(KXFeedback::ResultList{local, Result(16, "srv")});
  auto two = Convert<VNTEngagementFeedback>(*engagement);
  EXPECT_FALSE(two->fbr());
  EXPECT_FALSE(two->local_result());
  EXPECT_FALSE(two->VntActivityIdentifier());
}

TEST_F(ServerObjectTest, ContextSendsAbsoluteWholeSecondsAndNoInput) {
  auto context = Make<KXFeedbackContext>();
  context->setStart_ts(700000000.9);
  auto c = Convert<VNTFeedbackContext>(*context);
  EXPECT_EQ(c->input(), "");
  EXPECT_EQ(c->timestamp(), 2500);
  EXPECT_EQ(c->start_ts(), 700000000);
  EXPECT_FALSE(c->last_search());
  EXPECT_FALSE(c->keyboardLanguage());
  context->setStart_ts(std::numeric_limits<double>::infinity());
  EXPECT_EQ(Convert<VNTFeedbackContext>(*context)->start_ts(),
            std::numeric_limits<int64_t>::max());
}

}  // namespace
}  // namespace kx
