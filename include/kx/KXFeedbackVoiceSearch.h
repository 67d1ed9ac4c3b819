// Feedback about a dictated search: the dictation hypotheses in arrival
// order, why dictation stopped, and the times of the microphone and done
// buttons and of the recogniser's events (seconds since 2001-01-01 UTC).
//
// A record made here keeps a private growable list of speech results, and
// `speechResults` refers to that same list, so addSpeechResult is visible
// through the property. A record restored from an archive has the archived
// `speechResults` but no growable list: addSpeechResult still sets `input`,
// but the new speech result is dropped. This quirk is kept on purpose.
#pragma once

#include "kx/export.h"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kx/KXFeedback.h"
#include "kx/KXFeedbackSpeechResult.h"

class KX_EXPORT KXFeedbackVoiceSearch : public kx::FeedbackClass<KXFeedbackVoiceSearch, KXFeedback> {
 public:
  static constexpr const char* kClassName = "KXFeedbackVoiceSearch";
  using SpeechResultList = std::vector<std::shared_ptr<KXFeedbackSpeechResult>>;
  using KXFeedback::vantleFeedbackFromSession;

  KXFeedbackVoiceSearch();
  // A new record whose `micButtonStartTime` is its own `timestamp`.
  static std::shared_ptr<KXFeedbackVoiceSearch> feedback();

  const std::optional<std::string>& voiceIdentifier() const { return voiceIdentifier_; }
  void setVoiceIdentifier(std::optional<std::string> v) { voiceIdentifier_ = std::move(v); }
  const std::optional<kx::Dictionary>& headers() const { return headers_; }
  void setHeaders(std::optional<kx::Dictionary> v) { headers_ = std::move(v); }
  std::optional<SpeechResultList> speechResults() const;
  // Replaces the list the property shows; the growable list, if any, is not
  // touched, so later additions no longer show.
  void setSpeechResults(std::optional<SpeechResultList> v);
  const std::optional<std::string>& dictationStopReason() const { return dictationStopReason_; }
  void setDictationStopReason(std::optional<std::string> v) { dictationStopReason_ = std::move(v); }
  double speechDetectedTime() const { return speechDetectedTime_; }
  void setSpeechDetectedTime(double v) { speechDetectedTime_ = v; }
  double dictationStartTime() const { return dictationStartTime_; }
  void setDictationStartTime(double v) { dictationStartTime_ = v; }
  double dictationStopTime() const { return dictationStopTime_; }
  void setDictationStopTime(double v) { dictationStopTime_ = v; }
  double micButtonStartTime() const { return micButtonStartTime_; }
  void setMicButtonStartTime(double v) { micButtonStartTime_ = v; }
  double micButtonStopTime() const { return micButtonStopTime_; }
  void setMicButtonStopTime(double v) { micButtonStopTime_ = v; }
  double doneButtonTime() const { return doneButtonTime_; }
  void setDoneButtonTime(double v) { doneButtonTime_ = v; }

  // Sets `input` to `text` and appends a speech result made from the
  // arguments to the growable list.
  void addSpeechResult(std::optional<std::string> text, bool stable, double timestamp,
                       uint64_t webResultsSize, uint64_t skylumeResultsSize);
  // Stores the reason, or appends it to the stored one as "old,new", so
  // reasons accumulate comma-separated in arrival order.
  void dictationStoppedReason(std::optional<std::string> reason);
  // The same, then sets `dictationStopTime`.
  void dictationStoppedReason(std::optional<std::string> reason, double timestamp);

  bool initWithCoder(kx::KeyedUnarchiver& coder) override;
  std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(const VNTSession& session) const override;

 private:
  friend class kx::Coded<KXFeedbackVoiceSearch, KXFeedback>;
  static std::span<const kx::FieldSpec<KXFeedbackVoiceSearch>> CodedFields();

  std::optional<std::string> voiceIdentifier_;
  std::optional<kx::Dictionary> headers_;
  // Null when absent. Shares its list with growable_ until either changes.
  std::shared_ptr<SpeechResultList> speechResults_;
  std::shared_ptr<SpeechResultList> growable_;
  std::optional<std::string> dictationStopReason_;
  double speechDetectedTime_ = 0;
  double dictationStartTime_ = 0;
  double dictationStopTime_ = 0;
  double micButtonStartTime_ = 0;
  double micButtonStopTime_ = 0;
  double doneButtonTime_ = 0;
};
