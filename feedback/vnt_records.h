// The server search service's feedback objects and its session, as plain
// records. The daemon hands them to the service's client library; how they
// are serialised and sent is not this library's business.
//
// Every time in these records is a signed 64-bit count of milliseconds
// relative to the start of the server session, except `start_ts` of
// VNTFeedbackContext, which is an absolute time in whole seconds since
// 2001-01-01 00:00:00 UTC. Property names are the service's own. Scalars
// start at 0 or false; objects start absent.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kx/value.h"

// The service's session: when it started (seconds since 2001-01-01 UTC, the
// records' clock) and the network it runs over.
class VNTSession : public kx::Object {
 public:
  VNTSession(double sessionStartTime, int64_t connectionType)
      : sessionStartTime_(sessionStartTime), connectionType_(connectionType) {}
  std::string className() const override { return "VNTSession"; }
  double sessionStartTime() const { return sessionStartTime_; }
  int64_t connectionType() const { return connectionType_; }

 private:
  double sessionStartTime_;
  int64_t connectionType_;
};

// What every feedback object has: the query text, the time of the event and
// the keyboard language.
class VNTFeedback : public kx::Object {
 public:
  // initWithInput:timestamp:
  VNTFeedback(std::optional<std::string> input, int64_t timestamp)
      : input_(std::move(input)), timestamp_(timestamp) {}
  const std::optional<std::string>& input() const { return input_; }
  int64_t timestamp() const { return timestamp_; }
  const std::optional<std::string>& keyboardLanguage() const { return keyboardLanguage_; }
  void setKeyboardLanguage(std::optional<std::string> v) { keyboardLanguage_ = std::move(v); }

 private:
  std::optional<std::string> input_;
  int64_t timestamp_;
  std::optional<std::string> keyboardLanguage_;
};

class VNTSearchFeedback : public VNTFeedback {
 public:
  // initWithInput:type:timestamp:connectionType:queryId:
  VNTSearchFeedback(std::optional<std::string> input, int64_t type, int64_t timestamp,
                    int64_t connectionType, std::optional<kx::Number> queryId)
      : VNTFeedback(std::move(input), timestamp),
        type_(type),
        connectionType_(connectionType),
        queryId_(queryId) {}
  std::string className() const override { return "VNTSearchFeedback"; }
  int64_t type() const { return type_; }
  int64_t connectionType() const { return connectionType_; }
  const std::optional<kx::Number>& queryId() const { return queryId_; }

 private:
  int64_t type_;
  int64_t connectionType_;
  std::optional<kx::Number> queryId_;
};

class VNTVoiceSearchFeedback : public VNTFeedback {
 public:
  struct SpeechResult {
    std::optional<std::string> text;
    bool stable = false;
    int64_t timestamp = 0;
    uint64_t webResultsSize = 0;
    uint64_t skylumeResultsSize = 0;
  };

  // initWithInput:type:timestamp:connectionType:
  VNTVoiceSearchFeedback(std::optional<std::string> input, int64_t type, int64_t timestamp,
                         int64_t connectionType)
      : VNTFeedback(std::move(input), timestamp), type_(type), connectionType_(connectionType) {}
  std::string className() const override { return "VNTVoiceSearchFeedback"; }
  int64_t type() const { return type_; }
  int64_t connectionType() const { return connectionType_; }

  int64_t micButtonStartTime() const { return micButtonStartTime_; }
  void setMicButtonStartTime(int64_t v) { micButtonStartTime_ = v; }
  int64_t micButtonStopTime() const { return micButtonStopTime_; }
  void setMicButtonStopTime(int64_t v) { micButtonStopTime_ = v; }
  int64_t doneButtonTime() const { return doneButtonTime_; }
  void setDoneButtonTime(int64_t v) { doneButtonTime_ = v; }
  int64_t dictationStartTime() const { return dictationStartTime_; }
  void setDictationStartTime(int64_t v) { dictationStartTime_ = v; }
  int64_t dictationStopTime() const { return dictationStopTime_; }
  void setDictationStopTime(int64_t v) { dictationStopTime_ = v; }
  int64_t speechDetectedTime() const { return speechDetectedTime_; }
  void setSpeechDetectedTime(int64_t v) { speechDetectedTime_ = v; }
  const std::optional<std::string>& voiceIdentifier() const { return voiceIdentifier_; }
  void setVoiceIdentifier(std::optional<std::string> v) { voiceIdentifier_ = std::move(v); }
  const std::optional<std::string>& dictationStopReason() const { return dictationStopReason_; }
  void setDictationStopReason(std::optional<std::string> v) { dictationStopReason_ = std::move(v); }
  const std::optional<kx::Dictionary>& headers() const { return headers_; }
  void setHeaders(std::optional<kx::Dictionary> v) { headers_ = std::move(v); }

  void addSpeechResult(std::optional<std::string> text, bool stable, int64_t timestamp,
                       uint64_t webResultsSize, uint64_t skylumeResultsSize) {
    speechResults_.push_back(
        {std::move(text), stable, timestamp, webResultsSize, skylumeResultsSize});
  }
  // In the order they were added.
  const std::vector<SpeechResult>& speechResults() const { return speechResults_; }

 private:
  int64_t type_;
  int64_t connectionType_;
  int64_t micButtonStartTime_ = 0;
  int64_t micButtonStopTime_ = 0;
  int64_t doneButtonTime_ = 0;
  int64_t dictationStartTime_ = 0;
  int64_t dictationStopTime_ = 0;
  int64_t speechDetectedTime_ = 0;
  std::optional<std::string> voiceIdentifier_;
  std::optional<std::string> dictationStopReason_;
  std::optional<kx::Dictionary> headers_;
  std::vector<SpeechResult> speechResults_;
};

class VNTRenderFeedback : public VNTFeedback {
 public:
  using VNTFeedback::VNTFeedback;
  std::string className() const override { return "VNTRenderFeedback"; }
  int64_t trigger_timestamp() const { return trigger_timestamp_; }
  void setTrigger_timestamp(int64_t v) { trigger_timestamp_ = v; }
  const std::optional<std::string>& fbq() const { return fbq_; }
  void setFbq(std::optional<std::string> v) { fbq_ = std::move(v); }
  // The compact server strings of the results shown.
  const std::optional<std::vector<std::string>>& results() const { return results_; }
  void setResults(std::optional<std::vector<std::string>> v) { results_ = std::move(v); }
  const std::optional<kx::Array>& hidden_ext() const { return hidden_ext_; }
  void setHidden_ext(std::optional<kx::Array> v) { hidden_ext_ = std::move(v); }
  const std::optional<kx::Array>& sections() const { return sections_; }
  void setSections(std::optional<kx::Array> v) { sections_ = std::move(v); }

 private:
  int64_t trigger_timestamp_ = 0;
  std::optional<std::string> fbq_;
  std::optional<std::vector<std::string>> results_;
  std::optional<kx::Array> hidden_ext_;
  std::optional<kx::Array> sections_;
};

class VNTEngagementFeedback : public VNTFeedback {
 public:
  using VNTFeedback::VNTFeedback;
  std::string className() const override { return "VNTEngagementFeedback"; }
  int64_t result_action_target() const { return result_action_target_; }
  void setResult_action_target(int64_t v) { result_action_target_ = v; }
  int64_t action_type() const { return action_type_; }
  void setAction_type(int64_t v) { action_type_ = v; }
  int64_t action_area() const { return action_area_; }
  void setAction_area(int64_t v) { action_area_ = v; }
  const std::optional<std::string>& action_card_type() const { return action_card_type_; }
  void setAction_card_type(std::optional<std::string> v) { action_card_type_ = std::move(v); }
  bool userReturnedToResultsList() const { return userReturnedToResultsList_; }
  void setUserReturnedToResultsList(bool v) { userReturnedToResultsList_ = v; }
  const std::optional<kx::URL>& action_destination() const { return action_destination_; }
  void setAction_destination(std::optional<kx::URL> v) { action_destination_ = std::move(v); }
  const std::optional<std::string>& lastSearchQuery() const { return lastSearchQuery_; }
  void setLastSearchQuery(std::optional<std::string> v) { lastSearchQuery_ = std::move(v); }
  int64_t dpos() const { return dpos_; }
  void setDpos(int64_t v) { dpos_ = v; }
  double resultScore() const { return resultScore_; }
  void setResultScore(double v) { resultScore_ = v; }
  double sectionScore() const { return sectionScore_; }
  void setSectionScore(double v) { sectionScore_ = v; }
  const std::optional<std::string>& fbr() const { return fbr_; }
  void setFbr(std::optional<std::string> v) { fbr_ = std::move(v); }
  const std::optional<kx::Dictionary>& attributes() const { return attributes_; }
  void setAttributes(std::optional<kx::Dictionary> v) { attributes_ = std::move(v); }
  const std::optional<std::string>& VntAppShortVersion() const { return VntAppShortVersion_; }
  void setVntAppShortVersion(std::optional<std::string> v) { VntAppShortVersion_ = std::move(v); }
  const std::optional<std::string>& local_result() const { return local_result_; }
  void setLocal_result(std::optional<std::string> v) { local_result_ = std::move(v); }
  const std::optional<std::string>& VntActivityBundleID() const { return VntActivityBundleID_; }
  void setVntActivityBundleID(std::optional<std::string> v) { VntActivityBundleID_ = std::move(v); }
  const std::optional<std::string>& VntActivityIdentifier() const { return VntActivityIdentifier_; }
  void setVntActivityIdentifier(std::optional<std::string> v) {
    VntActivityIdentifier_ = std::move(v);
  }
  const std::optional<std::string>& VntActivityInfo() const { return VntActivityInfo_; }
  void setVntActivityInfo(std::optional<std::string> v) { VntActivityInfo_ = std::move(v); }
  bool VntActivityIsPublic() const { return VntActivityIsPublic_; }
  void setVntActivityIsPublic(bool v) { VntActivityIsPublic_ = v; }

 private:
  int64_t result_action_target_ = 0;
  int64_t action_type_ = 0;
  int64_t action_area_ = 0;
  std::optional<std::string> action_card_type_;
  bool userReturnedToResultsList_ = false;
  std::optional<kx::URL> action_destination_;
  std::optional<std::string> lastSearchQuery_;
  int64_t dpos_ = 0;
  double resultScore_ = 0;
  double sectionScore_ = 0;
  std::optional<std::string> fbr_;
  std::optional<kx::Dictionary> attributes_;
  std::optional<std::string> VntAppShortVersion_;
  std::optional<std::string> local_result_;
  std::optional<std::string> VntActivityBundleID_;
  std::optional<std::string> VntActivityIdentifier_;
  std::optional<std::string> VntActivityInfo_;
  bool VntActivityIsPublic_ = false;
};

class VNTMapsEngagementFeedback : public VNTEngagementFeedback {
 public:
  using VNTEngagementFeedback::VNTEngagementFeedback;
  std::string className() const override { return "VNTMapsEngagementFeedback"; }
  int64_t maps_action_target() const { return maps_action_target_; }
  void setMaps_action_target(int64_t v) { maps_action_target_ = v; }

 private:
  int64_t maps_action_target_ = 0;
};

class VNTAbandonmentFeedback : public VNTFeedback {
 public:
  // initWithInput:timestamp:method:
  VNTAbandonmentFeedback(std::optional<std::string> input, int64_t timestamp, uint64_t method)
      : VNTFeedback(std::move(input), timestamp), method_(method) {}
  std::string className() const override { return "VNTAbandonmentFeedback"; }
  uint64_t method() const { return method_; }

 private:
  uint64_t method_;
};

class VNTFeedbackContext : public VNTFeedback {
 public:
  using VNTFeedback::VNTFeedback;
  std::string className() const override { return "VNTFeedbackContext"; }
  // Absolute, in whole seconds.
  int64_t start_ts() const { return start_ts_; }
  void setStart_ts(int64_t v) { start_ts_ = v; }
  const std::optional<std::string>& start_method() const { return start_method_; }
  void setStart_method(std::optional<std::string> v) { start_method_ = std::move(v); }
  const std::optional<std::string>& last_search() const { return last_search_; }
  void setLast_search(std::optional<std::string> v) { last_search_ = std::move(v); }

 private:
  int64_t start_ts_ = 0;
  std::optional<std::string> start_method_;
  std::optional<std::string> last_search_;
};

namespace kx {

// A server feedback class made with initWithInput:timestamp:, passed as a
// value (the `class:` argument of vantleFeedbackFromSession).
struct VNTFeedbackClass {
  std::shared_ptr<VNTFeedback> (*make)(std::optional<std::string> input, int64_t timestamp);

  template <class V>
    requires std::is_base_of_v<VNTFeedback, V>
  static VNTFeedbackClass Of() {
    return {[](std::optional<std::string> input, int64_t timestamp) -> std::shared_ptr<VNTFeedback> {
      return std::make_shared<V>(std::move(input), timestamp);
    }};
  }
};

}  // namespace kx
