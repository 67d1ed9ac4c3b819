// One dictation hypothesis as voice-search feedback records it: the text,
// whether the recogniser considered it stable, when it arrived, and how many
// web and on-device results it produced.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "kx/feedback_coding.h"

class KX_EXPORT KXFeedbackSpeechResult : public kx::Coded<KXFeedbackSpeechResult, kx::CodedRoot> {
 public:
  static constexpr const char* kClassName = "KXFeedbackSpeechResult";

  KXFeedbackSpeechResult() = default;
  // initWithText:stable:timestamp:webResultsSize:skylumeResultsSize:
  KXFeedbackSpeechResult(std::optional<std::string> text, bool stable, double timestamp,
                         uint64_t webResultsSize, uint64_t skylumeResultsSize)
      : text_(std::move(text)),
        stable_(stable),
        timestamp_(timestamp),
        webResultsSize_(webResultsSize),
        skylumeResultsSize_(skylumeResultsSize) {}

  const std::optional<std::string>& text() const { return text_; }
  void setText(std::optional<std::string> v) { text_ = std::move(v); }
  bool stable() const { return stable_; }
  void setStable(bool v) { stable_ = v; }
  // Seconds since 2001-01-01 00:00:00 UTC.
  double timestamp() const { return timestamp_; }
  void setTimestamp(double v) { timestamp_ = v; }
  uint64_t webResultsSize() const { return webResultsSize_; }
  void setWebResultsSize(uint64_t v) { webResultsSize_ = v; }
  uint64_t skylumeResultsSize() const { return skylumeResultsSize_; }
  void setSkylumeResultsSize(uint64_t v) { skylumeResultsSize_ = v; }

 private:
  friend class kx::Coded<KXFeedbackSpeechResult, kx::CodedRoot>;
  static std::span<const kx::FieldSpec<KXFeedbackSpeechResult>> CodedFields();

  std::optional<std::string> text_;
  bool stable_ = false;
  double timestamp_ = 0;
  uint64_t webResultsSize_ = 0;
  uint64_t skylumeResultsSize_ = 0;
};
