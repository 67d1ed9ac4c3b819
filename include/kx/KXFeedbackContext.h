// How the search surface was started: when, by which method, and the search
// that was last run.
//
// `start_ts` is archived as a whole number of seconds although the field is
// a double: a restored record has lost the fraction (cut toward zero). The
// loss is intended; the server takes whole seconds anyway.
#pragma once

#include "kx/export.h"

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "kx/KXFeedback.h"

class KX_EXPORT KXFeedbackContext : public kx::FeedbackClass<KXFeedbackContext, KXFeedback> {
 public:
  static constexpr const char* kClassName = "KXFeedbackContext";
  using KXFeedback::vantleFeedbackFromSession;

  // Absolute start time, seconds since 2001-01-01 00:00:00 UTC.
  double start_ts() const { return start_ts_; }
  void setStart_ts(double v) { start_ts_ = v; }
  const std::optional<std::string>& start_method() const { return start_method_; }
  void setStart_method(std::optional<std::string> v) { start_method_ = std::move(v); }
  const std::optional<std::string>& last_search() const { return last_search_; }
  void setLast_search(std::optional<std::string> v) { last_search_ = std::move(v); }

  std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(const VNTSession& session) const override;

 private:
  friend class kx::Coded<KXFeedbackContext, KXFeedback>;
  static std::span<const kx::FieldSpec<KXFeedbackContext>> CodedFields();

  double start_ts_ = 0;
  std::optional<std::string> start_method_;
  std::optional<std::string> last_search_;
};
