// One result as feedback describes it: its domain, section flags, server
// feedback token (`fbr`), whether it was a top hit, and the user activity the
// application attached to it.
//
// `attributes`, `thumbnailData` and `appShortVersion` never enter the
// archive: they live only in the process that builds the record (the daemon
// fills them just before the server encoding reads them).
#pragma once

#include "kx/export.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "kx/feedback_coding.h"
#include "kx/value.h"

class KX_EXPORT KXFeedbackResult : public kx::Coded<KXFeedbackResult, kx::CodedRoot> {
 public:
  static constexpr const char* kClassName = "KXFeedbackResult";

  uint32_t domain() const { return domain_; }
  void setDomain(uint32_t v) { domain_ = v; }
  int32_t flags() const { return flags_; }
  void setFlags(int32_t v) { flags_ = v; }
  bool topHit() const { return topHit_; }
  void setTopHit(bool v) { topHit_ = v; }
  const std::optional<std::string>& fbr() const { return fbr_; }
  void setFbr(std::optional<std::string> v) { fbr_ = std::move(v); }
  const std::optional<std::string>& activityIdentifier() const { return activityIdentifier_; }
  void setActivityIdentifier(std::optional<std::string> v) { activityIdentifier_ = std::move(v); }
  const std::optional<std::string>& activityRequiredString() const {
    return activityRequiredString_;
  }
  void setActivityRequiredString(std::optional<std::string> v) {
    activityRequiredString_ = std::move(v);
  }
  const std::optional<std::string>& activitySecondaryString() const {
    return activitySecondaryString_;
  }
  void setActivitySecondaryString(std::optional<std::string> v) {
    activitySecondaryString_ = std::move(v);
  }
  const std::optional<std::string>& activitybundleID() const { return activitybundleID_; }
  void setActivitybundleID(std::optional<std::string> v) { activitybundleID_ = std::move(v); }
  const std::optional<std::string>& activityTitle() const { return activityTitle_; }
  void setActivityTitle(std::optional<std::string> v) { activityTitle_ = std::move(v); }
  const std::optional<kx::Value::Bytes>& activityData() const { return activityData_; }
  void setActivityData(std::optional<kx::Value::Bytes> v) { activityData_ = std::move(v); }
  const std::optional<std::string>& activityType() const { return activityType_; }
  void setActivityType(std::optional<std::string> v) { activityType_ = std::move(v); }
  // Atomic: safe to read and write from several threads.
  bool activityIsPublic() const { return activityIsPublic_.load(std::memory_order_relaxed); }
  void setActivityIsPublic(bool v) { activityIsPublic_.store(v, std::memory_order_relaxed); }
  const std::optional<kx::Dictionary>& attributes() const { return attributes_; }
  void setAttributes(std::optional<kx::Dictionary> v) { attributes_ = std::move(v); }
  const std::optional<kx::Value::Bytes>& thumbnailData() const { return thumbnailData_; }
  void setThumbnailData(std::optional<kx::Value::Bytes> v) { thumbnailData_ = std::move(v); }
  const std::optional<std::string>& appShortVersion() const { return appShortVersion_; }
  void setAppShortVersion(std::optional<std::string> v) { appShortVersion_ = std::move(v); }
  bool hasAssociatedUserActivity() const { return hasAssociatedUserActivity_; }
  void setHasAssociatedUserActivity(bool v) { hasAssociatedUserActivity_ = v; }
  const std::optional<std::string>& lastSearchQuery() const { return lastSearchQuery_; }
  void setLastSearchQuery(std::optional<std::string> v) { lastSearchQuery_ = std::move(v); }
  const std::optional<std::string>& url() const { return url_; }
  void setUrl(std::optional<std::string> v) { url_ = std::move(v); }

  // Server encoding (vantle_encoding.cpp).
  // The compact string that identifies this result to the server, such as
  // "server:<fbr>", "top_hit:<fbr>" or "local:<bundle id>[:<fbr>]".
  std::optional<std::string> vantleString() const;
  // "top_hit:<string>" when this result is a top hit, else `string` itself.
  // Despite its name it takes a string, not a domain.
  std::optional<std::string> topHitStringForDomain(const std::optional<std::string>& string) const;

 private:
  friend class kx::Coded<KXFeedbackResult, kx::CodedRoot>;
  static std::span<const kx::FieldSpec<KXFeedbackResult>> CodedFields();

  uint32_t domain_ = 0;
  int32_t flags_ = 0;
  bool topHit_ = false;
  std::optional<std::string> fbr_;
  std::optional<std::string> activityIdentifier_;
  std::optional<std::string> activityRequiredString_;
  std::optional<std::string> activitySecondaryString_;
  std::optional<std::string> activitybundleID_;
  std::optional<std::string> activityTitle_;
  std::optional<kx::Value::Bytes> activityData_;
  std::optional<std::string> activityType_;
  std::atomic<bool> activityIsPublic_{false};
  std::optional<kx::Dictionary> attributes_;
  std::optional<kx::Value::Bytes> thumbnailData_;
  std::optional<std::string> appShortVersion_;
  bool hasAssociatedUserActivity_ = false;
  std::optional<std::string> lastSearchQuery_;
  std::optional<std::string> url_;
};
