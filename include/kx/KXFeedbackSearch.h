// Feedback about a query's fate: KXFeedbackSearch records that a query was
// issued, KXFeedbackAbandonment that the user left search without engaging.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "kx/KXFeedback.h"

class KX_EXPORT KXFeedbackSearch : public kx::FeedbackClass<KXFeedbackSearch, KXFeedback> {
 public:
  static constexpr const char* kClassName = "KXFeedbackSearch";
  using KXFeedback::vantleFeedbackFromSession;

  // A new record with `queryId` set.
  static std::shared_ptr<KXFeedbackSearch> feedbackForQueryId(std::optional<kx::Number> queryId);

  const std::optional<kx::Number>& queryId() const { return queryId_; }
  void setQueryId(std::optional<kx::Number> v) { queryId_ = v; }

  std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(const VNTSession& session) const override;

 private:
  friend class kx::Coded<KXFeedbackSearch, KXFeedback>;
  static std::span<const kx::FieldSpec<KXFeedbackSearch>> CodedFields();

  std::optional<kx::Number> queryId_;
};

class KX_EXPORT KXFeedbackAbandonment : public kx::FeedbackClass<KXFeedbackAbandonment, KXFeedback> {
 public:
  static constexpr const char* kClassName = "KXFeedbackAbandonment";
  using KXFeedback::vantleFeedbackFromSession;

  // How search was left; passed to the server as its method.
  uint64_t reason() const { return reason_; }
  void setReason(uint64_t v) { reason_ = v; }

  std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(const VNTSession& session) const override;

 private:
  friend class kx::Coded<KXFeedbackAbandonment, KXFeedback>;
  static std::span<const kx::FieldSpec<KXFeedbackAbandonment>> CodedFields();

  uint64_t reason_ = 0;
};
