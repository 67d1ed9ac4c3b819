// KXSearchResult: one search hit, the record that the daemon produces, the
// packed result stream carries, sections group and the search agent merges.
//
// Wire format (Protocol Buffers), in the order writeTo emits it:
//   1 title  2 subtitle  3 summary  4 auxiliaryTitle  5 auxiliarySubtitle
//   (strings, when present)  6 identifier (uint64, has-bit 0)  7 url
//   8 flags (int32 varint: a negative value takes ten bytes, has-bit 1)
//   9 numberOfSummaryLines (uint32, has-bit 2)
//   10 the secure keyed archive of the additional-property dictionary, always
//   12 predictionIdentifier  13 userActivityType  14 userActivityRequiredString
//   15 userActivitySecondaryString  16 userActivityData  17 bundleID
//   18 externalIdentifier  19 contentURL (when present)
//   20 searchResultDomain (uint32, when hasSearchResultDomain)
//   21 geoUserSessionIDString, then 22 geoUserSessionStartTime (double) and
//   31 geoUserSessionSequenceNumber (uint32), both only with 21
//   23 userActivityEligibleForPublicIndexing  24 topHit (bools)  25 score
//   (uint64), always  26 protectionClass (when present)  27 contactIdentifiers,
//   one field per element  28 hasAssociatedUserActivity (bool)  29 resultScore
//   30 sectionScore (doubles), always.
// Tag 11 is unassigned. Readers accept any order and skip unknown fields.
//
// Presence: string, data and array fields are present when not absent (an
// empty string is present); identifier, flags and numberOfSummaryLines have
// has-bits that their setters set; the domain has its own flag.
//
// The additional-property dictionary holds server data under arbitrary keys,
// plus the file-location keys and "fbq". It is absent until first read
// through additionalPropertyDict() (which creates it empty) or written. Its
// archive is decoded lazily: a record read from the wire keeps the tag-10
// bytes and decodes them on the first access that needs the dictionary, with
// exactly the result eager decoding would give (undecodable bytes leave the
// dictionary absent). The archives of the absent and the empty dictionary are
// recognised by their bytes and never stored. The archive written for any
// other dictionary is kept and written again while the dictionary is
// unchanged, so a result encoded repeatedly pays for archiving once.
//
// Threads: like the platform's nonatomic properties, a result belongs to one
// writer at a time. Readers on several threads may share a result that
// nobody writes; the two lazily filled caches (the decoded dictionary and the
// computed contentURL) are published safely for them. resultScore,
// sectionScore and currentDisplayPosition are atomic and may be written
// while others read.
#pragma once

#include "kx/export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kx/value.h"
#include "kx/WireCodable.h"

class KXSearchResult;

// Decodes one record's fields from `reader` into `result` until the end of
// the reader's data, an error or an end-group key (which is consumed).
// Fields decoded before a failure are kept. False when the reader's error
// flag is set or an unknown field cannot be skipped.
KX_EXPORT bool KXSearchResultReadFrom(KXSearchResult& result, WireReader& reader);

// Consumes one record's fields like KXSearchResultReadFrom without building
// anything. False when a skip fails or the error flag is set.
KX_EXPORT bool KXSearchResultSkipFrom(WireReader& reader);

class KX_EXPORT KXSearchResult : public WireCodable {
 public:
  using StringList = std::vector<std::string>;
  using Bytes = std::vector<uint8_t>;

  KXSearchResult();
  ~KXSearchResult() override;
  KXSearchResult(const KXSearchResult&) = delete;
  KXSearchResult& operator=(const KXSearchResult&) = delete;

  std::string className() const override { return "KXSearchResult"; }

  // --- Coded fields -------------------------------------------------------
  const std::optional<std::string>& title() const { return title_; }
  void setTitle(std::optional<std::string> v) { title_ = std::move(v); }
  bool hasTitle() const { return title_.has_value(); }
  const std::optional<std::string>& subtitle() const { return subtitle_; }
  void setSubtitle(std::optional<std::string> v) { subtitle_ = std::move(v); }
  bool hasSubtitle() const { return subtitle_.has_value(); }
  const std::optional<std::string>& summary() const { return summary_; }
  void setSummary(std::optional<std::string> v) { summary_ = std::move(v); }
  bool hasSummary() const { return summary_.has_value(); }
  const std::optional<std::string>& auxiliaryTitle() const { return auxiliaryTitle_; }
  void setAuxiliaryTitle(std::optional<std::string> v) { auxiliaryTitle_ = std::move(v); }
  bool hasAuxiliaryTitle() const { return auxiliaryTitle_.has_value(); }
  const std::optional<std::string>& auxiliarySubtitle() const { return auxiliarySubtitle_; }
  void setAuxiliarySubtitle(std::optional<std::string> v) { auxiliarySubtitle_ = std::move(v); }
  bool hasAuxiliarySubtitle() const { return auxiliarySubtitle_.has_value(); }

  uint64_t identifier() const { return identifier_; }
  void setIdentifier(uint64_t v) {
    identifier_ = v;
    has_ |= kHasIdentifier;
  }
  bool hasIdentifier() const { return has_ & kHasIdentifier; }
  void setHasIdentifier(bool v) { setBit(kHasIdentifier, v); }

  const std::optional<std::string>& url() const { return url_; }
  void setUrl(std::optional<std::string> v) { url_ = std::move(v); }
  bool hasUrl() const { return url_.has_value(); }

  int32_t flags() const { return flags_; }
  void setFlags(int32_t v) {
    flags_ = v;
    has_ |= kHasFlags;
  }
  bool hasFlags() const { return has_ & kHasFlags; }
  void setHasFlags(bool v) { setBit(kHasFlags, v); }

  uint32_t numberOfSummaryLines() const { return numberOfSummaryLines_; }
  void setNumberOfSummaryLines(uint32_t v) {
    numberOfSummaryLines_ = v;
    has_ |= kHasNumberOfSummaryLines;
  }
  bool hasNumberOfSummaryLines() const { return has_ & kHasNumberOfSummaryLines; }
  void setHasNumberOfSummaryLines(bool v) { setBit(kHasNumberOfSummaryLines, v); }

  const std::optional<std::string>& predictionIdentifier() const { return predictionIdentifier_; }
  void setPredictionIdentifier(std::optional<std::string> v) {
    predictionIdentifier_ = std::move(v);
  }
  const std::optional<std::string>& userActivityType() const { return userActivityType_; }
  void setUserActivityType(std::optional<std::string> v) { userActivityType_ = std::move(v); }
  const std::optional<std::string>& userActivityRequiredString() const {
    return userActivityRequiredString_;
  }
  void setUserActivityRequiredString(std::optional<std::string> v) {
    userActivityRequiredString_ = std::move(v);
  }
  const std::optional<std::string>& userActivitySecondaryString() const {
    return userActivitySecondaryString_;
  }
  void setUserActivitySecondaryString(std::optional<std::string> v) {
    userActivitySecondaryString_ = std::move(v);
  }
  const std::optional<Bytes>& userActivityData() const { return userActivityData_; }
  void setUserActivityData(std::optional<Bytes> v) { userActivityData_ = std::move(v); }
  const std::optional<std::string>& bundleID() const { return bundleID_; }
  void setBundleID(std::optional<std::string> v) { bundleID_ = std::move(v); }
  const std::optional<std::string>& externalIdentifier() const { return externalIdentifier_; }
  void setExternalIdentifier(std::optional<std::string> v) { externalIdentifier_ = std::move(v); }

  // The stored content path when there is one. Otherwise, when
  // documentIdentifier is present, the path that kx_URLFromFileID finds for
  // the file-location properties; a path found is stored (and then encoded
  // as tag 19) and returned from then on. May block on the file system.
  std::optional<std::string> contentURL() const;
  void setContentURL(std::optional<std::string> v);

  uint32_t searchResultDomain() const { return searchResultDomain_; }
  void setSearchResultDomain(uint32_t v) {
    searchResultDomain_ = v;
    hasSearchResultDomain_ = true;
  }
  bool hasSearchResultDomain() const { return hasSearchResultDomain_; }
  void setHasSearchResultDomain(bool v) { hasSearchResultDomain_ = v; }

  const std::optional<std::string>& geoUserSessionIDString() const {
    return geoUserSessionIDString_;
  }
  void setGeoUserSessionIDString(std::optional<std::string> v) {
    geoUserSessionIDString_ = std::move(v);
  }
  bool hasGeoUserSessionInformation() const { return geoUserSessionIDString_.has_value(); }
  double geoUserSessionStartTime() const { return geoUserSessionStartTime_; }
  void setGeoUserSessionStartTime(double v) { geoUserSessionStartTime_ = v; }
  uint32_t geoUserSessionSequenceNumber() const { return geoUserSessionSequenceNumber_; }
  void setGeoUserSessionSequenceNumber(uint32_t v) { geoUserSessionSequenceNumber_ = v; }

  bool userActivityEligibleForPublicIndexing() const {
    return userActivityEligibleForPublicIndexing_;
  }
  void setUserActivityEligibleForPublicIndexing(bool v) {
    userActivityEligibleForPublicIndexing_ = v;
  }
  bool topHit() const { return topHit_; }
  void setTopHit(bool v) { topHit_ = v; }
  uint64_t score() const { return score_; }
  void setScore(uint64_t v) { score_ = v; }
  const std::optional<std::string>& protectionClass() const { return protectionClass_; }
  void setProtectionClass(std::optional<std::string> v) { protectionClass_ = std::move(v); }
  const std::optional<StringList>& contactIdentifiers() const { return contactIdentifiers_; }
  void setContactIdentifiers(std::optional<StringList> v) { contactIdentifiers_ = std::move(v); }
  bool hasAssociatedUserActivity() const { return hasAssociatedUserActivity_; }
  void setHasAssociatedUserActivity(bool v) { hasAssociatedUserActivity_ = v; }

  double resultScore() const { return resultScore_.load(std::memory_order_relaxed); }
  void setResultScore(double v) { resultScore_.store(v, std::memory_order_relaxed); }
  double sectionScore() const { return sectionScore_.load(std::memory_order_relaxed); }
  void setSectionScore(double v) { sectionScore_.store(v, std::memory_order_relaxed); }

  // --- In memory only -----------------------------------------------------
  const std::optional<std::string>& resultBundleID() const { return resultBundleID_; }
  void setResultBundleID(std::optional<std::string> v) { resultBundleID_ = std::move(v); }
  bool isQuickGlance() const { return isQuickGlance_; }
  void setIsQuickGlance(bool v) { isQuickGlance_ = v; }
  int64_t currentDisplayPosition() const {
    return currentDisplayPosition_.load(std::memory_order_relaxed);
  }
  void setCurrentDisplayPosition(int64_t v) {
    currentDisplayPosition_.store(v, std::memory_order_relaxed);
  }
  bool supportsImageAsyncLoading() const { return supportsImageAsyncLoading_; }
  void setSupportsImageAsyncLoading(bool v) { supportsImageAsyncLoading_ = v; }

  // --- Additional properties ----------------------------------------------
  // The dictionary, created empty when absent.
  kx::Dictionary& additionalPropertyDict();
  // The dictionary without creating it: null when absent.
  const kx::Dictionary* additionalPropertyDictIfPresent() const;
  // Replaces the dictionary (absent included).
  void setAdditionalPropertyDict(std::optional<kx::Dictionary> dict);
  // Empties the dictionary; an absent one stays absent.
  void clearAdditionalProperties();
  // Entries of the dictionary; 0 when absent.
  size_t additionalPropertiesCount() const;

  // Key-value access for keys that are not declared properties: the value
  // goes into the additional-property dictionary (created if absent); a nil
  // value removes the key.
  void setValue(const kx::Value& value, std::string_view key);
  // The dictionary's value for `key`; nil when absent.
  kx::Value valueForUndefinedKey(std::string_view key) const;

  // File location of a document result, kept in the dictionary under
  // "kFileIdentifier", "kParentFileIdentifier", "kFilename" and
  // "kDocumentIdentifier". Setting nothing removes the key. A stored value
  // of another kind reads as absent.
  std::optional<uint64_t> fileIdentifier() const;
  void setFileIdentifier(std::optional<uint64_t> v);
  std::optional<uint64_t> parentFileIdentifier() const;
  void setParentFileIdentifier(std::optional<uint64_t> v);
  std::optional<std::string> filename() const;
  void setFilename(std::optional<std::string> v);
  std::optional<uint32_t> documentIdentifier() const;
  void setDocumentIdentifier(std::optional<uint32_t> v);
  // The feedback query value, the undefined key "fbq".
  kx::Value fbq() const { return valueForUndefinedKey("fbq"); }
  void setFbq(const kx::Value& v) { setValue(v, "fbq"); }

  // `url` parsed; nothing when `url` is absent or not a URL.
  std::optional<kx::URL> resultURL() const;
  // Stores the URL's absolute string in `url` (nothing clears it).
  void setResultURL(const std::optional<kx::URL>& u);

  // --- Coding --------------------------------------------------------------
  bool readFrom(WireReader& reader) override;
  void writeTo(WireWriter& writer) const override;

  // --- Comparison, description, copies -------------------------------------
  // Deliberately narrow: the same object, or externalIdentifier and bundleID
  // both present and equal with protectionClass equal or absent on both.
  // Results that agree on everything else are still not equal.
  bool isEqual(const KXSearchResult& other) const;
  bool isEqual(const kx::Object& other) const override;
  // (identifier * 0x9e3779b1 when set) ^ hash of url. Deliberately unrelated
  // to isEqual: hashed containers keep two equal results that hash apart.
  size_t hash() const override;

  // The present fields under their own names ("additionalProperties" for a
  // non-empty dictionary); the two activity booleans always, as Int32 0 or 1.
  // topHit, score, the scores and the in-memory fields never appear. May
  // compute and cache contentURL.
  kx::Dictionary dictionaryRepresentation() const;
  // "<KXSearchResult: 0x...> " followed by dictionaryRepresentation.
  std::string description() const override;

  // Copies into `target`: the five title strings, identifier, url, flags and
  // numberOfSummaryLines with their bits, the additional properties (a copy,
  // only when they hold entries), predictionIdentifier, userActivityType,
  // bundleID, externalIdentifier, contentURL, protectionClass, the domain
  // (only when set), the geo-session fields, contactIdentifiers, score,
  // topHit, hasAssociatedUserActivity, resultScore and sectionScore.
  void copyTo(KXSearchResult& target) const;
  // A new result of the receiver's own class with the fields of copyTo,
  // except resultScore and sectionScore, and with the dictionary copied
  // whether or not it holds entries. Neither copy carries
  // userActivityRequiredString, userActivitySecondaryString,
  // userActivityData, userActivityEligibleForPublicIndexing or the
  // in-memory fields.
  virtual std::shared_ptr<KXSearchResult> copy() const;

  // --- Equivalence (looser than isEqual, used when merging) ----------------
  // Same non-zero identifier, or both urls present and equal.
  bool isEquivalentToResult(const KXSearchResult& other) const;

 protected:
  // The copy() fields, for subclasses that make the new object themselves.
  void copyFieldsForCopy(KXSearchResult& target) const;

 private:
  friend bool KXSearchResultReadFrom(KXSearchResult& result, WireReader& reader);

  static constexpr uint8_t kHasIdentifier = 1;
  static constexpr uint8_t kHasFlags = 2;
  static constexpr uint8_t kHasNumberOfSummaryLines = 4;
  void setBit(uint8_t bit, bool v) { has_ = v ? (has_ | bit) : (has_ & ~bit); }

  // Tag 10 as read from the wire: classified, and kept undecoded unless it
  // is one of the two common archives.
  void takeArchivedProperties(std::span<const uint8_t> archive);
  // Decodes a pending archive, once; safe for concurrent readers.
  void resolvePendingArchive() const;
  const std::optional<kx::Dictionary>& properties() const {
    if (archivePending_.load(std::memory_order_acquire)) [[unlikely]]
      resolvePendingArchive();
    return additionalProperties_;
  }
  std::optional<kx::Dictionary>& mutableProperties() {
    properties();
    return additionalProperties_;
  }
  // The value tag 19 carries: the stored path, else the cached computed one;
  // null when there is neither.
  const std::string* storedContentURL() const {
    if (contentURL_) [[unlikely]]
      return &*contentURL_;
    if (contentURLComputed_.load(std::memory_order_acquire)) [[unlikely]]
      return &*computedContentURL_;
    return nullptr;
  }
  std::optional<std::string> storedContentURLCopy() const {
    const std::string* path = storedContentURL();
    return path ? std::optional<std::string>(*path) : std::nullopt;
  }
  void writeAdditionalProperties(WireWriter& writer) const;

  std::optional<std::string> title_;
  std::optional<std::string> subtitle_;
  std::optional<std::string> summary_;
  std::optional<std::string> auxiliaryTitle_;
  std::optional<std::string> auxiliarySubtitle_;
  std::optional<std::string> url_;
  std::optional<std::string> predictionIdentifier_;
  std::optional<std::string> userActivityType_;
  std::optional<std::string> userActivityRequiredString_;
  std::optional<std::string> userActivitySecondaryString_;
  std::optional<Bytes> userActivityData_;
  std::optional<std::string> bundleID_;
  std::optional<std::string> externalIdentifier_;
  std::optional<std::string> contentURL_;
  std::optional<std::string> geoUserSessionIDString_;
  std::optional<std::string> protectionClass_;
  std::optional<StringList> contactIdentifiers_;
  std::optional<std::string> resultBundleID_;

  uint64_t identifier_ = 0;
  uint64_t score_ = 0;
  double geoUserSessionStartTime_ = 0;
  std::atomic<double> resultScore_{0};
  std::atomic<double> sectionScore_{0};
  std::atomic<int64_t> currentDisplayPosition_{0};
  int32_t flags_ = 0;
  uint32_t numberOfSummaryLines_ = 0;
  uint32_t searchResultDomain_ = 0;
  uint32_t geoUserSessionSequenceNumber_ = 0;
  uint8_t has_ = 0;
  bool hasSearchResultDomain_ = false;
  bool userActivityEligibleForPublicIndexing_ = false;
  bool topHit_ = false;
  bool hasAssociatedUserActivity_ = false;
  bool isQuickGlance_ = false;
  bool supportsImageAsyncLoading_ = false;

  // The dictionary. While archivePending_ is set, pendingArchive_ holds the
  // tag-10 bytes and additionalProperties_ is not yet meaningful; the flag
  // is cleared (release) only after additionalProperties_ is filled in.
  mutable std::optional<kx::Dictionary> additionalProperties_;
  mutable Bytes pendingArchive_;
  mutable std::atomic<bool> archivePending_{false};

  // The archive last written for a non-empty dictionary, reused while the
  // dictionary still matches the snapshot taken with it (see
  // model/property_snapshot.h). Owned by whoever set archiveCacheBusy_.
  struct ArchiveCache;
  mutable std::unique_ptr<ArchiveCache> archiveCache_;
  mutable std::atomic<bool> archiveCacheBusy_{false};

  // contentURL computed from the file-location properties while contentURL_
  // is absent; meaningful once contentURLComputed_ is set (release).
  mutable std::optional<std::string> computedContentURL_;
  mutable std::atomic<bool> contentURLComputed_{false};
};
