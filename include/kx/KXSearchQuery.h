// One search request as the client library sees it: the text, keyboard
// languages, domains to search, bundles to leave out, the dictation response
// and the time stamps latency is measured from.
//
// A query is identified by its query ID alone: equality and hash follow the
// ID, and copying hands out the same object. IDs come from a process-wide
// counter whose first value is 1; they are unique within a process only.
//
// Threads: queries may be created on any thread. `cancel` and `cancelled`
// are safe across threads. Every other property belongs to the thread that
// builds the query until it hands the query over.
#pragma once

#include "kx/export.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kx/value.h"

class KX_EXPORT KXSearchQuery : public kx::Object {
  struct PrivateTag {};

 public:
  using DomainList = std::vector<uint32_t>;
  using BundleList = std::vector<std::string>;

  // The designated creation. Throws kx::InternalInconsistencyException when
  // `searchDomains` has more entries than there are search domains; absent
  // domains mean every user-visible domain.
  static std::shared_ptr<KXSearchQuery> initWithSearchString(
      std::string searchString, std::optional<std::string> keyboardLanguage,
      std::optional<std::string> keyboardPrimaryLanguage,
      std::optional<DomainList> searchDomains, std::optional<BundleList> disabledBundles);
  static std::shared_ptr<KXSearchQuery> initWithSearchString(
      std::string searchString, std::optional<std::string> keyboardLanguage,
      std::optional<DomainList> searchDomains, std::optional<BundleList> disabledBundles);
  static std::shared_ptr<KXSearchQuery> initWithSearchString(std::string searchString);
  // A query of the same identity (ID, creation time and stamp) as `query`
  // over other domains. It takes the text, languages and disabled bundles;
  // dictation, grouping, limits and filters start afresh. Creating it still
  // consumes a counter value.
  static std::shared_ptr<KXSearchQuery> initWithQuery(const KXSearchQuery& query,
                                                      std::optional<DomainList> domains);

  KXSearchQuery(PrivateTag, std::string searchString, std::optional<std::string> keyboardLanguage,
                std::optional<std::string> keyboardPrimaryLanguage, DomainList searchDomains,
                std::optional<BundleList> disabledBundles);

  // Marks the query cancelled and stamps the cancellation time; visible to
  // every thread that then asks `cancelled`.
  void cancel();
  bool cancelled() const;

  // The receiver itself: a query is shared, never duplicated.
  std::shared_ptr<KXSearchQuery> copyWithZone();

  int64_t queryID() const { return queryID_; }
  const std::string& searchString() const { return searchString_; }
  const std::optional<std::string>& keyboardLanguage() const { return keyboardLanguage_; }
  const std::optional<std::string>& keyboardPrimaryLanguage() const {
    return keyboardPrimaryLanguage_;
  }
  const DomainList& searchDomains() const { return searchDomains_; }
  // Absolute time (seconds since 2001-01-01 UTC).
  double creationTime() const { return creationTime_; }
  // Absolute time of `cancel`; 0 until then.
  double cancellationTime() const;
  // CLOCK_MONOTONIC nanoseconds, the clock every latency figure uses.
  uint64_t creationStamp() const { return creationStamp_; }

  bool internal() const { return internal_; }
  void setInternal(bool internal) { internal_ = internal; }
  bool dictationStable() const { return dictationStable_; }
  void setDictationStable(bool stable) { dictationStable_ = stable; }
  bool grouped() const { return grouped_; }
  void setGrouped(bool grouped) { grouped_ = grouped; }
  // A dictionary, or nil.
  const kx::Value& dictationResponse() const { return dictationResponse_; }
  void setDictationResponse(kx::Value response) { dictationResponse_ = std::move(response); }
  int64_t maxCount() const { return maxCount_; }
  void setMaxCount(int64_t maxCount) { maxCount_ = maxCount; }
  const std::optional<BundleList>& disabledBundles() const { return disabledBundles_; }
  void setDisabledBundles(std::optional<BundleList> bundles) {
    disabledBundles_ = std::move(bundles);
  }
  // Bits interpreted by the daemon.
  int64_t contentFilters() const { return contentFilters_; }
  void setContentFilters(int64_t filters) { contentFilters_ = filters; }

  bool isEqual(const KXSearchQuery& other) const { return queryID_ == other.queryID_; }
  bool isEqual(const kx::Object& other) const override;
  size_t hash() const override { return static_cast<size_t>(queryID_); }
  std::string className() const override { return "KXSearchQuery"; }

 private:
  int64_t queryID_;
  std::string searchString_;
  std::optional<std::string> keyboardLanguage_;
  std::optional<std::string> keyboardPrimaryLanguage_;
  std::atomic<bool> cancelled_{false};
  bool internal_ = false;
  DomainList searchDomains_;
  double creationTime_;
  std::atomic<double> cancellationTime_{0};
  uint64_t creationStamp_;
  bool dictationStable_ = false;
  bool grouped_ = false;
  kx::Value dictationResponse_;
  int64_t maxCount_ = 0;
  std::optional<BundleList> disabledBundles_;
  int64_t contentFilters_ = 0;
};
