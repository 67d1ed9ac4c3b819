// Feedback about a results list being shown: when the display was
// triggered, the results shown (in `results`), the sections, and the server
// results hidden as duplicates of local ones.
//
// The coder key of `triggerTimestamp` is "trigger_timestamp", and the field
// `hiddentExtResults` is spelt with the extra "t": both are archive names
// and must not change.
#pragma once

#include "kx/export.h"

#include <memory>
#include <optional>
#include <span>

#include "kx/KXFeedback.h"

class KX_EXPORT KXFeedbackRender : public kx::FeedbackClass<KXFeedbackRender, KXFeedback> {
 public:
  static constexpr const char* kClassName = "KXFeedbackRender";
  using KXFeedback::vantleFeedbackFromSession;

  // Seconds since 2001-01-01 00:00:00 UTC.
  double triggerTimestamp() const { return triggerTimestamp_; }
  void setTriggerTimestamp(double v) { triggerTimestamp_ = v; }
  const std::optional<kx::Array>& hiddentExtResults() const { return hiddentExtResults_; }
  void setHiddentExtResults(std::optional<kx::Array> v) { hiddentExtResults_ = std::move(v); }
  bool leftOfHome() const { return leftOfHome_; }
  void setLeftOfHome(bool v) { leftOfHome_ = v; }
  const std::optional<kx::Array>& sections() const { return sections_; }
  void setSections(std::optional<kx::Array> v) { sections_ = std::move(v); }

  std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(const VNTSession& session) const override;

 private:
  friend class kx::Coded<KXFeedbackRender, KXFeedback>;
  static std::span<const kx::FieldSpec<KXFeedbackRender>> CodedFields();

  double triggerTimestamp_ = 0;
  std::optional<kx::Array> hiddentExtResults_;
  bool leftOfHome_ = false;
  std::optional<kx::Array> sections_;
};
