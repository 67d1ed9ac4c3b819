#include "feedback/vantle_encoding.h"

#include <openssl/evp.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "kx/KXFeedback.h"
#include "kx/KXFeedbackContext.h"
#include "kx/KXFeedbackEngagement.h"
#include "kx/KXFeedbackRender.h"
#include "kx/KXFeedbackSearch.h"
#include "kx/KXFeedbackVoiceSearch.h"
#include "feedback/feedback_time.h"
#include "feedback/vnt_records.h"
#include "kx/KXDomainManager.h"
#include "kx/format.h"
#include "kx/log.h"

namespace kx {

int64_t ResultActionTargetForActionTarget(std::string_view actionTarget) {
  static constexpr std::pair<std::string_view, int64_t> kTargets[] = {
      {"play", 1}, {"phonecall", 2}, {"navigation", 3}, {"contact", 4}};
  for (const auto& [name, target] : kTargets) {
    if (actionTarget == name) return target;
  }
  return 0;
}

int64_t MapsActionTargetForFeedbackType(int32_t feedbackType) {
  static constexpr std::pair<int32_t, int64_t> kTargets[] = {
      {2, 1},   {3, 2},   {12, 4},  {13, 5},  {62, 10},
      {173, 6}, {176, 7}, {177, 8}, {180, 9}, {201, 3}};
  for (const auto& [type, target] : kTargets) {
    if (feedbackType == type) return target;
  }
  return 0;
}

}  // namespace kx

namespace {

constexpr uint32_t kDomainVantle = 16;
constexpr uint32_t kDomainWebSearch = 17;
constexpr uint32_t kDomainCoreSkylume = 23;

// Results of the server's own domains are named by their feedback token.
bool IsServerDomain(uint32_t domain) {
  return domain == kDomainVantle || domain == kDomainWebSearch;
}

int64_t SessionMilliseconds(const VNTSession& session, double time) {
  return kx::MillisecondsBetween(session.sessionStartTime(), time);
}

// How a result is named in render and engagement feedback: by its activity
// when it carries one, otherwise by its server string.
std::optional<std::string> ResultString(const KXFeedbackResult& result) {
  if (result.activityRequiredString()) {
    return KXFeedback::localResultActivityStringFromResult(result, result.attributes());
  }
  return result.vantleString();
}

// The JSON form of a string or a number; nullopt for anything else. A
// number that JSON cannot express (NaN, infinities) clears `writable`.
std::optional<nlohmann::json> JsonScalar(const kx::Value& value, bool& writable) {
  if (const std::string* s = value.string()) return nlohmann::json(*s);
  const kx::Number* n = value.number();
  if (!n) return std::nullopt;
  if (n->isBool()) return nlohmann::json(n->boolValue());
  if (n->isFloatingPoint()) {
    const double d = n->doubleValue();
    if (!std::isfinite(d)) writable = false;
    return nlohmann::json(d);
  }
  if (n->isUnsigned()) return nlohmann::json(n->uint64Value());
  return nlohmann::json(n->int64Value());
}

// A content attribute worth summarising: a string or number, or an array or
// dictionary made only of strings and numbers (empty ones qualify).
std::optional<nlohmann::json> JsonAttribute(const kx::Value& value, bool& writable) {
  if (const kx::Array* elements = value.array()) {
    nlohmann::json out = nlohmann::json::array();
    for (const kx::Value& element : *elements) {
      std::optional<nlohmann::json> j = JsonScalar(element, writable);
      if (!j) return std::nullopt;
      out.push_back(std::move(*j));
    }
    return out;
  }
  if (const kx::Dictionary* entries = value.dictionary()) {
    nlohmann::json out = nlohmann::json::object();
    for (const auto& [key, element] : *entries) {
      std::optional<nlohmann::json> j = JsonScalar(element, writable);
      if (!j) return std::nullopt;
      out[key] = std::move(*j);
    }
    return out;
  }
  return JsonScalar(value, writable);
}

}  // namespace

// KXFeedbackResult

std::optional<std::string> KXFeedbackResult::topHitStringForDomain(
    const std::optional<std::string>& string) const {
  if (topHit()) return kx::Format("top_hit:%@", string);
  return string;
}

std::optional<std::string> KXFeedbackResult::vantleString() const {
  std::optional<std::string> s;
  std::optional<std::string_view> bundle =
      KXDomainManager::defaultManager()->getBundleIdForDomainNumber(domain());
  if (IsServerDomain(domain())) {
    // A top hit is named by its bare token; the prefix comes below.
    s = topHit() ? fbr() : kx::Format("server:%@", fbr());
  } else if (bundle) {
    std::optional<std::string> bundleID{std::string(*bundle)};
    std::optional<std::string> activitySuffix;
    if (domain() == kDomainCoreSkylume) {
      // Items that applications donate are named by their own bundle.
      bundleID = activitybundleID();
      if (hasAssociatedUserActivity()) {
        activitySuffix =
            kx::Format("/lah:%@%@", activitybundleID(), activityIsPublic() ? ":public" : "");
      }
    }
    // A feedback token, when there is one, replaces the activity suffix.
    const std::string tail = fbr() ? kx::Format(":%@", fbr()) : activitySuffix.value_or("");
    s = kx::Format("%@:%@%@", "local", bundleID, tail);
  } else {
    s = fbr() ? fbr() : std::optional<std::string>("other");
  }
  return topHitStringForDomain(s);
}

// KXFeedback

std::optional<std::string> KXFeedback::localResultActivityStringFromResult(
    const KXFeedbackResult& result, const std::optional<kx::Dictionary>& /*attributes*/) {
  // Unlike the "/lah:" suffix of vantleString: no leading "/", and the
  // public marker is "/public" there ":public". Both forms are expected.
  return result.topHitStringForDomain(kx::Format(
      "lah:%@%@", result.activitybundleID(), result.activityIsPublic() ? "/public" : ""));
}

std::string KXFeedback::sha1(std::string_view string) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  // EVP_Digest may not accept a null pointer even for no bytes.
  const void* bytes = string.empty() ? static_cast<const void*>("") : string.data();
  if (EVP_Digest(bytes, string.size(), digest, &length, EVP_sha1(), nullptr) != 1 ||
      length != 20) {
    KXLOG(3, "SHA-1 digest could not be computed");
    return {};
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(40);
  for (unsigned int i = 0; i < length; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 0xf];
  }
  return out;
}

std::optional<std::string> KXFeedback::serializedActivityInfoWithResult(
    const KXFeedbackResult& result, const std::optional<kx::Dictionary>& attributes) {
  if (!attributes) return std::nullopt;
  static constexpr std::string_view kSummaryKeys[] = {"kZRItemTitle", "kZRItemDisplayName",
                                                      "kZRItemDescription", "kZRItemKeywords",
                                                      "kZRItemStarRating"};
  nlohmann::json selected = nlohmann::json::object();
  bool writable = true;
  for (std::string_view key : kSummaryKeys) {
    auto it = attributes->find(key);
    if (it == attributes->end()) continue;
    if (std::optional<nlohmann::json> j = JsonAttribute(it->second, writable)) {
      selected[std::string(key)] = std::move(*j);
    }
  }
  std::string json;
  try {
    // Strict UTF-8: invalid text throws type_error 316 instead of being
    // replaced.
    if (writable) json = selected.dump();
  } catch (const nlohmann::json::exception&) {
    writable = false;
  }
  if (!writable) {
    KXLOG(3, "Error serializing contentAttributes");
    return std::nullopt;
  }
  // The three strings go in as they are, without JSON escaping: the server
  // expects exactly this text.
  return kx::Format(
      "{\"activity_string\":\"%@\", \"bundle_id\":\"%@\", \"title\":\"%@\", "
      "\"contentAttributes\":%@}",
      result.activityRequiredString(), result.activitybundleID(), result.activityTitle(), json);
}

std::shared_ptr<VNTFeedback> KXFeedback::vantleFeedbackFromSession(const VNTSession&) const {
  return nullptr;
}

std::shared_ptr<VNTFeedback> KXFeedback::vantleFeedbackFromSession(
    const VNTSession& session, const kx::VNTFeedbackClass& cls) const {
  std::shared_ptr<VNTFeedback> feedback =
      cls.make(input(), SessionMilliseconds(session, timestamp()));
  feedback->setKeyboardLanguage(keyboardLanguage());
  return feedback;
}

// Subclasses

std::shared_ptr<VNTFeedback> KXFeedbackSearch::vantleFeedbackFromSession(
    const VNTSession& session) const {
  return std::make_shared<VNTSearchFeedback>(input(), 0, SessionMilliseconds(session, timestamp()),
                                             session.connectionType(), queryId());
}

std::shared_ptr<VNTFeedback> KXFeedbackVoiceSearch::vantleFeedbackFromSession(
    const VNTSession& session) const {
  auto voice = std::make_shared<VNTVoiceSearchFeedback>(
      input(), 2, SessionMilliseconds(session, timestamp()), session.connectionType());
  // The microphone start is relative to the record; every later time is
  // relative to the microphone start.
  const double micStart = micButtonStartTime();
  voice->setMicButtonStartTime(kx::MillisecondsBetween(timestamp(), micStart));
  voice->setMicButtonStopTime(kx::MillisecondsBetween(micStart, micButtonStopTime()));
  voice->setDoneButtonTime(kx::MillisecondsBetween(micStart, doneButtonTime()));
  voice->setDictationStartTime(kx::MillisecondsBetween(micStart, dictationStartTime()));
  voice->setDictationStopTime(kx::MillisecondsBetween(micStart, dictationStopTime()));
  voice->setSpeechDetectedTime(kx::MillisecondsBetween(micStart, speechDetectedTime()));
  voice->setVoiceIdentifier(voiceIdentifier());
  voice->setDictationStopReason(dictationStopReason());
  voice->setHeaders(headers());
  if (std::optional<SpeechResultList> speech = speechResults()) {
    for (const std::shared_ptr<KXFeedbackSpeechResult>& s : *speech) {
      if (!s) continue;
      voice->addSpeechResult(s->text(), s->stable(),
                             kx::MillisecondsBetween(micStart, s->timestamp()),
                             s->webResultsSize(), s->skylumeResultsSize());
    }
  }
  return voice;
}

std::shared_ptr<VNTFeedback> KXFeedbackRender::vantleFeedbackFromSession(
    const VNTSession& session) const {
  auto render = std::static_pointer_cast<VNTRenderFeedback>(
      vantleFeedbackFromSession(session, kx::VNTFeedbackClass::Of<VNTRenderFeedback>()));
  render->setTrigger_timestamp(SessionMilliseconds(session, triggerTimestamp()));
  render->setFbq(fbq());
  std::vector<std::string> strings;
  if (results()) {
    for (const std::shared_ptr<KXFeedbackResult>& result : *results()) {
      if (strings.size() == kx::kMaxRenderResultStrings) break;
      if (!result) continue;
      if (std::optional<std::string> s = ResultString(*result)) strings.push_back(std::move(*s));
    }
  }
  render->setResults(std::move(strings));
  render->setHidden_ext(hiddentExtResults());
  render->setSections(sections());
  return render;
}

std::shared_ptr<VNTFeedback> KXFeedbackEngagement::vantleFeedbackFromSession(
    const VNTSession& session, const kx::VNTFeedbackClass& cls) const {
  std::shared_ptr<VNTFeedback> base = KXFeedback::vantleFeedbackFromSession(session, cls);
  auto engagement = std::dynamic_pointer_cast<VNTEngagementFeedback>(base);
  if (!engagement) return base;  // not an engagement class: nothing more to set
  if (actionTarget()) {
    engagement->setResult_action_target(kx::ResultActionTargetForActionTarget(*actionTarget()));
  }
  engagement->setAction_type(2);
  engagement->setAction_area(1 + (engagementOnCard() ? 1 : 0));
  engagement->setAction_card_type(cardType());
  engagement->setUserReturnedToResultsList(userReturnedToResultsList());
  engagement->setAction_destination(action_destination());
  if (lastSearchQuery()) engagement->setLastSearchQuery(lastSearchQuery());
  engagement->setDpos(displayPosition());
  engagement->setResultScore(resultScore());
  engagement->setSectionScore(sectionScore());

  // Result details only when the engagement concerns exactly one result.
  if (!results() || results()->size() != 1 || !results()->front()) return engagement;
  const KXFeedbackResult& result = *results()->front();
  if (IsServerDomain(result.domain())) {
    engagement->setFbr(result.fbr());
    return engagement;
  }
  engagement->setAttributes(result.attributes());
  engagement->setVntAppShortVersion(result.appShortVersion());
  engagement->setLocal_result(ResultString(result));
  engagement->setVntActivityBundleID(result.activitybundleID());
  // Only a hash of the application's own identifier leaves the device; an
  // absent identifier stays absent rather than becoming the hash of nothing.
  if (result.activityIdentifier()) {
    engagement->setVntActivityIdentifier(sha1(*result.activityIdentifier()));
  }
  engagement->setVntActivityInfo(serializedActivityInfoWithResult(result, result.attributes()));
  engagement->setVntActivityIsPublic(result.activityIsPublic());
  return engagement;
}

std::shared_ptr<VNTFeedback> KXFeedbackEngagement::vantleFeedbackFromSession(
    const VNTSession& session) const {
  auto engagement = std::static_pointer_cast<VNTEngagementFeedback>(
      vantleFeedbackFromSession(session, kx::VNTFeedbackClass::Of<VNTEngagementFeedback>()));
  // Replaces the builder's card-based area; kept as the server expects it.
  engagement->setAction_area(1 + (userReturnedToResultsList() ? 1 : 0));
  return engagement;
}

std::shared_ptr<VNTFeedback> KXFeedbackEngagementMaps::vantleFeedbackFromSession(
    const VNTSession& session) const {
  auto maps = std::static_pointer_cast<VNTMapsEngagementFeedback>(vantleFeedbackFromSession(
      session, kx::VNTFeedbackClass::Of<VNTMapsEngagementFeedback>()));
  maps->setAction_area(2);
  maps->setMaps_action_target(kx::MapsActionTargetForFeedbackType(feedbackType()));
  return maps;
}

std::shared_ptr<VNTFeedback> KXFeedbackAbandonment::vantleFeedbackFromSession(
    const VNTSession& session) const {
  return std::make_shared<VNTAbandonmentFeedback>(
      input(), SessionMilliseconds(session, timestamp()), reason());
}

std::shared_ptr<VNTFeedback> KXFeedbackContext::vantleFeedbackFromSession(
    const VNTSession& session) const {
  // The server takes the context without the query text.
  auto context = std::make_shared<VNTFeedbackContext>(std::string(),
                                                      SessionMilliseconds(session, timestamp()));
  context->setStart_ts(kx::TruncateToInt64(start_ts()));
  context->setStart_method(start_method());
  if (last_search()) context->setLast_search(last_search());
  return context;
}
