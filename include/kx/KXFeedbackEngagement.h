// Feedback about the user engaging with a result: where (on a card or the
// row), what action it was, whether the user came back to the list, and the
// result's position and scores. KXFeedbackEngagementMaps adds the map
// service's feedback type.
//
// The maps record's `feedbackType` travels under "maps_feedback_type"; the
// key differs from the field name and must stay as it is.
#pragma once

#include "kx/export.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "kx/KXFeedback.h"

class KX_EXPORT KXFeedbackEngagement : public kx::FeedbackClass<KXFeedbackEngagement, KXFeedback> {
 public:
  static constexpr const char* kClassName = "KXFeedbackEngagement";
  using KXFeedback::vantleFeedbackFromSession;

  bool userReturnedToResultsList() const { return userReturnedToResultsList_; }
  void setUserReturnedToResultsList(bool v) { userReturnedToResultsList_ = v; }
  bool engagementOnCard() const { return engagementOnCard_; }
  void setEngagementOnCard(bool v) { engagementOnCard_ = v; }
  const std::optional<std::string>& cardType() const { return cardType_; }
  void setCardType(std::optional<std::string> v) { cardType_ = std::move(v); }
  const std::optional<kx::URL>& action_destination() const { return action_destination_; }
  void setAction_destination(std::optional<kx::URL> v) { action_destination_ = std::move(v); }
  const std::optional<std::string>& lastSearchQuery() const { return lastSearchQuery_; }
  void setLastSearchQuery(std::optional<std::string> v) { lastSearchQuery_ = std::move(v); }
  // The next three are atomic: safe to read and write from several threads.
  int64_t displayPosition() const { return displayPosition_.load(std::memory_order_relaxed); }
  void setDisplayPosition(int64_t v) { displayPosition_.store(v, std::memory_order_relaxed); }
  double resultScore() const { return resultScore_.load(std::memory_order_relaxed); }
  void setResultScore(double v) { resultScore_.store(v, std::memory_order_relaxed); }
  double sectionScore() const { return sectionScore_.load(std::memory_order_relaxed); }
  void setSectionScore(double v) { sectionScore_.store(v, std::memory_order_relaxed); }
  // What the engagement did: "play", "phonecall", "navigation", "contact"
  // are known to the server; anything else is sent as "other".
  const std::optional<std::string>& actionTarget() const { return actionTarget_; }
  void setActionTarget(std::optional<std::string> v) { actionTarget_ = std::move(v); }

  std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(const VNTSession& session) const override;
  // The engagement builder: the base object of `cls` with every engagement
  // property set, and the single result's details when there is exactly one.
  std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(
      const VNTSession& session, const kx::VNTFeedbackClass& cls) const override;

 private:
  friend class kx::Coded<KXFeedbackEngagement, KXFeedback>;
  static std::span<const kx::FieldSpec<KXFeedbackEngagement>> CodedFields();

  bool userReturnedToResultsList_ = false;
  bool engagementOnCard_ = false;
  std::optional<std::string> cardType_;
  std::optional<kx::URL> action_destination_;
  std::optional<std::string> lastSearchQuery_;
  std::atomic<int64_t> displayPosition_{0};
  std::atomic<double> resultScore_{0};
  std::atomic<double> sectionScore_{0};
  std::optional<std::string> actionTarget_;
};

class KX_EXPORT KXFeedbackEngagementMaps
    : public kx::FeedbackClass<KXFeedbackEngagementMaps, KXFeedbackEngagement> {
 public:
  static constexpr const char* kClassName = "KXFeedbackEngagementMaps";
  using KXFeedbackEngagement::vantleFeedbackFromSession;

  // The map service's feedback type; mapped to the server's action target.
  int32_t feedbackType() const { return feedbackType_; }
  void setFeedbackType(int32_t v) { feedbackType_ = v; }

  std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(const VNTSession& session) const override;

 private:
  friend class kx::Coded<KXFeedbackEngagementMaps, KXFeedbackEngagement>;
  static std::span<const kx::FieldSpec<KXFeedbackEngagementMaps>> CodedFields();

  int32_t feedbackType_ = 0;
};
