#include "kx/KXFeedbackVoiceSearch.h"

#include "kx/format.h"
#include "feedback/coded_fields.h"

KXFeedbackVoiceSearch::KXFeedbackVoiceSearch()
    : growable_(std::make_shared<SpeechResultList>()) {
  speechResults_ = growable_;
}

std::shared_ptr<KXFeedbackVoiceSearch> KXFeedbackVoiceSearch::feedback() {
  std::shared_ptr<KXFeedbackVoiceSearch> record = FeedbackClass::feedback();
  record->setMicButtonStartTime(record->timestamp());
  return record;
}

std::optional<KXFeedbackVoiceSearch::SpeechResultList> KXFeedbackVoiceSearch::speechResults()
    const {
  if (!speechResults_) return std::nullopt;
  return *speechResults_;
}

void KXFeedbackVoiceSearch::setSpeechResults(std::optional<SpeechResultList> v) {
  speechResults_ = v ? std::make_shared<SpeechResultList>(std::move(*v)) : nullptr;
}

void KXFeedbackVoiceSearch::addSpeechResult(std::optional<std::string> text, bool stable,
                                            double timestamp, uint64_t webResultsSize,
                                            uint64_t skylumeResultsSize) {
  auto speech = std::make_shared<KXFeedbackSpeechResult>(text, stable, timestamp, webResultsSize,
                                                         skylumeResultsSize);
  setInput(std::move(text));
  if (growable_) growable_->push_back(std::move(speech));
}

void KXFeedbackVoiceSearch::dictationStoppedReason(std::optional<std::string> reason) {
  if (!dictationStopReason_) {
    dictationStopReason_ = std::move(reason);
  } else {
    dictationStopReason_ = kx::Format("%@,%@", dictationStopReason_, reason);
  }
}

void KXFeedbackVoiceSearch::dictationStoppedReason(std::optional<std::string> reason,
                                                   double timestamp) {
  dictationStoppedReason(std::move(reason));
  setDictationStopTime(timestamp);
}

bool KXFeedbackVoiceSearch::initWithCoder(kx::KeyedUnarchiver& coder) {
  // Decoding does not make the growable list (see the header).
  growable_.reset();
  speechResults_.reset();
  return FeedbackClass::initWithCoder(coder);
}

std::span<const kx::FieldSpec<KXFeedbackVoiceSearch>> KXFeedbackVoiceSearch::CodedFields() {
  using V = KXFeedbackVoiceSearch;
  using kx::Field;
  static const kx::FieldSpec<V> kFields[] = {
      Field<&V::voiceIdentifier, &V::setVoiceIdentifier>("voiceIdentifier"),
      Field<&V::headers, &V::setHeaders>("headers"),
      Field<&V::speechResults, &V::setSpeechResults>("speechResults"),
      Field<&V::dictationStopReason, &V::setDictationStopReason>("dictationStopReason"),
      Field<&V::speechDetectedTime, &V::setSpeechDetectedTime>("speechDetectedTime"),
      Field<&V::dictationStartTime, &V::setDictationStartTime>("dictationStartTime"),
      Field<&V::dictationStopTime, &V::setDictationStopTime>("dictationStopTime"),
      Field<&V::micButtonStartTime, &V::setMicButtonStartTime>("micButtonStartTime"),
      Field<&V::micButtonStopTime, &V::setMicButtonStopTime>("micButtonStopTime"),
      Field<&V::doneButtonTime, &V::setDoneButtonTime>("doneButtonTime"),
  };
  return kFields;
}
