#include "kx/KXSearchResult.h"

#include <cstring>
#include <mutex>

#include "kx/file_identifier_url.h"
#include "kx/log.h"
#include "model/property_archive.h"
#include "model/property_snapshot.h"
#include "model/record_fields.h"
#include "support/secure_archiving.h"

namespace {

using Bytes = KXSearchResult::Bytes;

constexpr std::string_view kFileIdentifierKey = "kFileIdentifier";
constexpr std::string_view kParentFileIdentifierKey = "kParentFileIdentifier";
constexpr std::string_view kFilenameKey = "kFilename";
constexpr std::string_view kDocumentIdentifierKey = "kDocumentIdentifier";

// Field numbers.
enum Tag : uint32_t {
  kTitle = 1,
  kSubtitle = 2,
  kSummary = 3,
  kAuxiliaryTitle = 4,
  kAuxiliarySubtitle = 5,
  kIdentifier = 6,
  kUrl = 7,
  kFlags = 8,
  kNumberOfSummaryLines = 9,
  kAdditionalPropertyDict = 10,
  kPredictionIdentifier = 12,
  kUserActivityType = 13,
  kUserActivityRequiredString = 14,
  kUserActivitySecondaryString = 15,
  kUserActivityData = 16,
  kBundleID = 17,
  kExternalIdentifier = 18,
  kContentURL = 19,
  kSearchResultDomain = 20,
  kGeoUserSessionIDString = 21,
  kGeoUserSessionStartTime = 22,
  kUserActivityEligibleForPublicIndexing = 23,
  kTopHit = 24,
  kScore = 25,
  kProtectionClass = 26,
  kContactIdentifiers = 27,
  kHasAssociatedUserActivity = 28,
  kResultScore = 29,
  kSectionScore = 30,
  kGeoUserSessionSequenceNumber = 31,
};

// The archives of the absent and of the empty dictionary. Nearly every
// result carries one of them, so they are made once, written as stored
// bytes and recognised by their bytes when read. Never destroyed, like the
// mutex below: pool threads may still code results while static
// destructors run at exit.
struct CommonArchives {
  Bytes absent;
  Bytes empty;
};

const CommonArchives& Common() {
  static const CommonArchives& archives = *new CommonArchives{
      _kx_secureArchivedDataWithRootObject(kx::Value()).value_or(Bytes()),
      _kx_secureArchivedDataWithRootObject(kx::Value(kx::Dictionary())).value_or(Bytes())};
  return archives;
}

bool SameBytes(std::span<const uint8_t> a, const Bytes& b) {
  return a.size() == b.size() && !b.empty() && std::memcmp(a.data(), b.data(), b.size()) == 0;
}

// Serialises the lazy fills of every result. They are rare (one per result
// with a non-trivial dictionary or a computed content path) and short.
std::mutex& LazyFillMutex() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

}  // namespace

bool kx::IsCommonPropertyArchive(std::span<const uint8_t> archive) {
  const CommonArchives& common = Common();
  return SameBytes(archive, common.empty) || SameBytes(archive, common.absent);
}

// ---------------------------------------------------------------------------
// Additional properties

void KXSearchResult::takeArchivedProperties(std::span<const uint8_t> archive) {
  pendingArchive_.clear();
  archivePending_.store(false, std::memory_order_relaxed);
  const CommonArchives& common = Common();
  if (SameBytes(archive, common.empty)) {
    if (additionalProperties_) {
      additionalProperties_->clear();
    } else {
      additionalProperties_.emplace();
    }
    return;
  }
  additionalProperties_.reset();
  // Nothing, or the absent archive, decodes to no dictionary.
  if (archive.empty() || SameBytes(archive, common.absent)) return;
  pendingArchive_.assign(archive.begin(), archive.end());
  archivePending_.store(true, std::memory_order_relaxed);
}

void KXSearchResult::resolvePendingArchive() const {
  std::lock_guard<std::mutex> lock(LazyFillMutex());
  if (!archivePending_.load(std::memory_order_relaxed)) return;  // another reader did it
  kx::Value root = _kx_secureUnarchiveObjectWithData(pendingArchive_);
  if (root.dictionary()) {
    additionalProperties_ = std::move(*root.mutableDictionary());
  } else {
    additionalProperties_.reset();
    KXLOG(4, "Additional properties of a result (%zu bytes) do not decode to a dictionary",
          pendingArchive_.size());
  }
  Bytes().swap(pendingArchive_);
  archivePending_.store(false, std::memory_order_release);
}

kx::Dictionary& KXSearchResult::additionalPropertyDict() {
  std::optional<kx::Dictionary>& props = mutableProperties();
  if (!props) props.emplace();
  return *props;
}

const kx::Dictionary* KXSearchResult::additionalPropertyDictIfPresent() const {
  const std::optional<kx::Dictionary>& props = properties();
  return props ? &*props : nullptr;
}

void KXSearchResult::setAdditionalPropertyDict(std::optional<kx::Dictionary> dict) {
  mutableProperties() = std::move(dict);
}

void KXSearchResult::clearAdditionalProperties() {
  if (std::optional<kx::Dictionary>& props = mutableProperties()) props->clear();
}

size_t KXSearchResult::additionalPropertiesCount() const {
  const std::optional<kx::Dictionary>& props = properties();
  return props ? props->size() : 0;
}

void KXSearchResult::setValue(const kx::Value& value, std::string_view key) {
  kx::Dictionary& dict = additionalPropertyDict();
  if (value.isNil()) {
    if (auto it = dict.find(key); it != dict.end()) dict.erase(it);
  } else {
    dict.insert_or_assign(std::string(key), value);
  }
}

kx::Value KXSearchResult::valueForUndefinedKey(std::string_view key) const {
  const std::optional<kx::Dictionary>& props = properties();
  if (!props) return {};
  auto it = props->find(key);
  return it == props->end() ? kx::Value() : it->second;
}

namespace {

std::optional<uint64_t> UInt64Of(const kx::Value& v) {
  if (const kx::Number* n = v.number()) return n->uint64Value();
  return std::nullopt;
}

}  // namespace

std::optional<uint64_t> KXSearchResult::fileIdentifier() const {
  return UInt64Of(valueForUndefinedKey(kFileIdentifierKey));
}

void KXSearchResult::setFileIdentifier(std::optional<uint64_t> v) {
  setValue(v ? kx::Value(kx::Number::UInt64(*v)) : kx::Value(), kFileIdentifierKey);
}

std::optional<uint64_t> KXSearchResult::parentFileIdentifier() const {
  return UInt64Of(valueForUndefinedKey(kParentFileIdentifierKey));
}

void KXSearchResult::setParentFileIdentifier(std::optional<uint64_t> v) {
  setValue(v ? kx::Value(kx::Number::UInt64(*v)) : kx::Value(), kParentFileIdentifierKey);
}

std::optional<std::string> KXSearchResult::filename() const {
  kx::Value v = valueForUndefinedKey(kFilenameKey);
  if (const std::string* s = v.string()) return *s;
  return std::nullopt;
}

void KXSearchResult::setFilename(std::optional<std::string> v) {
  setValue(v ? kx::Value(std::move(*v)) : kx::Value(), kFilenameKey);
}

std::optional<uint32_t> KXSearchResult::documentIdentifier() const {
  kx::Value v = valueForUndefinedKey(kDocumentIdentifierKey);
  if (const kx::Number* n = v.number()) return n->uint32Value();
  return std::nullopt;
}

void KXSearchResult::setDocumentIdentifier(std::optional<uint32_t> v) {
  setValue(v ? kx::Value(kx::Number::UInt32(*v)) : kx::Value(), kDocumentIdentifierKey);
}

// ---------------------------------------------------------------------------
// URLs

std::optional<kx::URL> KXSearchResult::resultURL() const {
  if (!url_) return std::nullopt;
  return kx::URL::WithString(*url_);
}

void KXSearchResult::setResultURL(const std::optional<kx::URL>& u) {
  if (u) {
    url_ = u->absoluteString();
  } else {
    url_.reset();
  }
}

std::optional<std::string> KXSearchResult::contentURL() const {
  if (const std::string* stored = storedContentURL()) return *stored;
  std::optional<uint32_t> documentID = documentIdentifier();
  if (!documentID) return std::nullopt;
  // Resolved outside the lock: it may take a while on the file system. A
  // path that cannot be found is not cached, so a later call tries again.
  std::optional<kx::URL> url =
      kx_URLFromFileID(fileIdentifier(), filename(), parentFileIdentifier(), documentID);
  if (!url) return std::nullopt;
  std::lock_guard<std::mutex> lock(LazyFillMutex());
  if (!contentURLComputed_.load(std::memory_order_relaxed)) {
    computedContentURL_ = url->path();
    contentURLComputed_.store(true, std::memory_order_release);
  }
  return computedContentURL_;
}

void KXSearchResult::setContentURL(std::optional<std::string> v) {
  contentURL_ = std::move(v);
  computedContentURL_.reset();
  contentURLComputed_.store(false, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------
// Coding

bool KXSearchResult::readFrom(WireReader& reader) { return KXSearchResultReadFrom(*this, reader); }

bool KXSearchResultReadFrom(KXSearchResult& r, WireReader& reader) {
  // Contact identifiers of this record; they replace the result's only when
  // the record has some and its fields could all be walked.
  KXSearchResult::StringList contacts;
  uint64_t key;
  while (kx::NextRecordKey(reader, &key)) {
    switch (kx::RecordFieldNumber(key)) {
      case kTitle: kx::ReadStringField(reader, r.title_); break;
      case kSubtitle: kx::ReadStringField(reader, r.subtitle_); break;
      case kSummary: kx::ReadStringField(reader, r.summary_); break;
      case kAuxiliaryTitle: kx::ReadStringField(reader, r.auxiliaryTitle_); break;
      case kAuxiliarySubtitle: kx::ReadStringField(reader, r.auxiliarySubtitle_); break;
      case kIdentifier:
        r.has_ |= KXSearchResult::kHasIdentifier;
        r.identifier_ = reader.readUInt64();
        break;
      case kUrl: kx::ReadStringField(reader, r.url_); break;
      case kFlags:
        r.has_ |= KXSearchResult::kHasFlags;
        r.flags_ = reader.readInt32();
        break;
      case kNumberOfSummaryLines:
        r.has_ |= KXSearchResult::kHasNumberOfSummaryLines;
        r.numberOfSummaryLines_ = reader.readUInt32();
        break;
      case kAdditionalPropertyDict: r.takeArchivedProperties(reader.readDataView()); break;
      case kPredictionIdentifier: kx::ReadStringField(reader, r.predictionIdentifier_); break;
      case kUserActivityType: kx::ReadStringField(reader, r.userActivityType_); break;
      case kUserActivityRequiredString:
        kx::ReadStringField(reader, r.userActivityRequiredString_);
        break;
      case kUserActivitySecondaryString:
        kx::ReadStringField(reader, r.userActivitySecondaryString_);
        break;
      case kUserActivityData: {
        std::span<const uint8_t> d = reader.readDataView();
        if (reader.hasError()) {
          r.userActivityData_.reset();
        } else {
          r.userActivityData_.emplace(d.begin(), d.end());
        }
        break;
      }
      case kBundleID: kx::ReadStringField(reader, r.bundleID_); break;
      case kExternalIdentifier: kx::ReadStringField(reader, r.externalIdentifier_); break;
      case kContentURL: {
        std::optional<std::string> path = std::move(r.contentURL_);
        kx::ReadStringField(reader, path);
        r.setContentURL(std::move(path));
        break;
      }
      case kSearchResultDomain:
        r.hasSearchResultDomain_ = true;
        r.searchResultDomain_ = reader.readUInt32();
        break;
      case kGeoUserSessionIDString: kx::ReadStringField(reader, r.geoUserSessionIDString_); break;
      case kGeoUserSessionStartTime: r.geoUserSessionStartTime_ = reader.readDouble(); break;
      case kGeoUserSessionSequenceNumber:
        r.geoUserSessionSequenceNumber_ = reader.readUInt32();
        break;
      case kUserActivityEligibleForPublicIndexing:
        r.userActivityEligibleForPublicIndexing_ = reader.readBool();
        break;
      case kTopHit: r.topHit_ = reader.readBool(); break;
      case kScore: r.score_ = reader.readUInt64(); break;
      case kProtectionClass: kx::ReadStringField(reader, r.protectionClass_); break;
      case kContactIdentifiers: {
        std::string_view v = reader.readStringView();
        if (!reader.hasError()) contacts.emplace_back(v);
        break;
      }
      case kHasAssociatedUserActivity: r.hasAssociatedUserActivity_ = reader.readBool(); break;
      case kResultScore: r.setResultScore(reader.readDouble()); break;
      case kSectionScore: r.setSectionScore(reader.readDouble()); break;
      default:  // 0, 11 and numbers beyond 31
        if (!reader.skipField(key)) return false;
        break;
    }
  }
  if (!contacts.empty()) r.contactIdentifiers_ = std::move(contacts);
  return !reader.hasError();
}

bool KXSearchResultSkipFrom(WireReader& reader) { return reader.skipRecord(); }

// A dictionary's archive together with a snapshot of what it was made from.
struct KXSearchResult::ArchiveCache {
  kx::PropertySnapshot snapshot;
  Bytes archive;
};

void KXSearchResult::writeAdditionalProperties(WireWriter& w) const {
  const std::optional<kx::Dictionary>& props = properties();
  const CommonArchives& common = Common();
  if (!props) {
    w.writeDataField(kAdditionalPropertyDict, common.absent);
    return;
  }
  if (props->empty()) {
    w.writeDataField(kAdditionalPropertyDict, common.empty);
    return;
  }
  // The cache belongs to whoever sets the flag; a writer on another thread
  // meanwhile archives on its own instead of waiting.
  const bool ownsCache = !archiveCacheBusy_.exchange(true, std::memory_order_acquire);
  if (ownsCache && archiveCache_ && archiveCache_->snapshot.matches(*props)) {
    w.writeDataField(kAdditionalPropertyDict, archiveCache_->archive);
    archiveCacheBusy_.store(false, std::memory_order_release);
    return;
  }
  const kx::Value root(*props);
  std::optional<Bytes> archive = _kx_secureArchivedDataWithRootObject(root);
  if (archive) {
    w.writeDataField(kAdditionalPropertyDict, *archive);
  } else {
    // The field is always written; the reader finds the dictionary absent,
    // as it would on bytes it cannot decode.
    KXLOG(3, "Additional properties of result %@ cannot be archived securely; sending none",
          title_);
    w.writeDataField(kAdditionalPropertyDict, common.absent);
  }
  if (!ownsCache) return;
  std::optional<kx::PropertySnapshot> snapshot;
  if (archive) snapshot = kx::PropertySnapshot::Take(*props);
  if (snapshot) {
    archiveCache_.reset(new ArchiveCache{std::move(*snapshot), std::move(*archive)});
  } else {
    archiveCache_.reset();
  }
  archiveCacheBusy_.store(false, std::memory_order_release);
}

KXSearchResult::KXSearchResult() = default;
KXSearchResult::~KXSearchResult() = default;

void KXSearchResult::writeTo(WireWriter& w) const {
  if (title_) w.writeStringField(kTitle, *title_);
  if (subtitle_) w.writeStringField(kSubtitle, *subtitle_);
  if (summary_) w.writeStringField(kSummary, *summary_);
  if (auxiliaryTitle_) w.writeStringField(kAuxiliaryTitle, *auxiliaryTitle_);
  if (auxiliarySubtitle_) w.writeStringField(kAuxiliarySubtitle, *auxiliarySubtitle_);
  if (has_ & kHasIdentifier) w.writeVarintField(kIdentifier, identifier_);
  if (url_) w.writeStringField(kUrl, *url_);
  if (has_ & kHasFlags) w.writeInt32Field(kFlags, flags_);
  if (has_ & kHasNumberOfSummaryLines) {
    w.writeVarintField(kNumberOfSummaryLines, numberOfSummaryLines_);
  }
  writeAdditionalProperties(w);
  if (predictionIdentifier_) w.writeStringField(kPredictionIdentifier, *predictionIdentifier_);
  if (userActivityType_) w.writeStringField(kUserActivityType, *userActivityType_);
  if (userActivityRequiredString_) {
    w.writeStringField(kUserActivityRequiredString, *userActivityRequiredString_);
  }
  if (userActivitySecondaryString_) {
    w.writeStringField(kUserActivitySecondaryString, *userActivitySecondaryString_);
  }
  if (userActivityData_) w.writeDataField(kUserActivityData, *userActivityData_);
  if (bundleID_) w.writeStringField(kBundleID, *bundleID_);
  if (externalIdentifier_) w.writeStringField(kExternalIdentifier, *externalIdentifier_);
  if (const std::string* path = storedContentURL()) w.writeStringField(kContentURL, *path);
  if (hasSearchResultDomain_) w.writeVarintField(kSearchResultDomain, searchResultDomain_);
  // The session's start time and sequence number travel only with its id,
  // right after it.
  if (geoUserSessionIDString_) {
    w.writeStringField(kGeoUserSessionIDString, *geoUserSessionIDString_);
    w.writeDoubleField(kGeoUserSessionStartTime, geoUserSessionStartTime_);
    w.writeVarintField(kGeoUserSessionSequenceNumber, geoUserSessionSequenceNumber_);
  }
  w.writeBoolField(kUserActivityEligibleForPublicIndexing, userActivityEligibleForPublicIndexing_);
  w.writeBoolField(kTopHit, topHit_);
  w.writeVarintField(kScore, score_);
  if (protectionClass_) w.writeStringField(kProtectionClass, *protectionClass_);
  if (contactIdentifiers_) {
    for (const std::string& c : *contactIdentifiers_) w.writeStringField(kContactIdentifiers, c);
  }
  w.writeBoolField(kHasAssociatedUserActivity, hasAssociatedUserActivity_);
  w.writeDoubleField(kResultScore, resultScore());
  w.writeDoubleField(kSectionScore, sectionScore());
}

// ---------------------------------------------------------------------------
// Comparison and description

bool KXSearchResult::isEqual(const KXSearchResult& o) const {
  if (this == &o) return true;
  // Only the external identity counts; identifier, url, title and subtitle
  // never make two distinct results equal.
  return externalIdentifier_ && o.externalIdentifier_ &&
         *externalIdentifier_ == *o.externalIdentifier_ && bundleID_ && o.bundleID_ &&
         *bundleID_ == *o.bundleID_ && protectionClass_ == o.protectionClass_;
}

bool KXSearchResult::isEqual(const kx::Object& other) const {
  const auto* o = dynamic_cast<const KXSearchResult*>(&other);
  return o && isEqual(*o);
}

size_t KXSearchResult::hash() const {
  uint64_t h = (has_ & kHasIdentifier) ? identifier_ * uint64_t{0x9e3779b1} : 0;
  return static_cast<size_t>(h) ^ kx::HashOptionalString(url_);
}

kx::Dictionary KXSearchResult::dictionaryRepresentation() const {
  using kx::Number;
  using kx::Value;
  kx::Dictionary d;
  auto putString = [&d](const char* key, const std::optional<std::string>& s) {
    if (s) d.emplace(key, Value(*s));
  };
  putString("title", title_);
  putString("subtitle", subtitle_);
  putString("summary", summary_);
  putString("auxiliaryTitle", auxiliaryTitle_);
  putString("auxiliarySubtitle", auxiliarySubtitle_);
  if (has_ & kHasIdentifier) d.emplace("identifier", Value(Number::UInt64(identifier_)));
  putString("url", url_);
  if (has_ & kHasFlags) d.emplace("flags", Value(Number::Int32(flags_)));
  if (has_ & kHasNumberOfSummaryLines) {
    d.emplace("numberOfSummaryLines", Value(Number::UInt32(numberOfSummaryLines_)));
  }
  if (const std::optional<kx::Dictionary>& props = properties(); props && !props->empty()) {
    d.emplace("additionalProperties", Value(*props));
  }
  putString("predictionIdentifier", predictionIdentifier_);
  putString("externalIdentifier", externalIdentifier_);
  putString("userActivityType", userActivityType_);
  putString("userActivityRequiredString", userActivityRequiredString_);
  putString("userActivitySecondaryString", userActivitySecondaryString_);
  if (userActivityData_) d.emplace("userActivityData", Value(*userActivityData_));
  putString("bundleID", bundleID_);
  putString("protectionClass", protectionClass_);
  putString("contentURL", contentURL());
  if (hasSearchResultDomain_) {
    const auto domain = static_cast<int32_t>(searchResultDomain_);
    d.emplace("searchResultDomain", Value(Number::Int32(domain)));
  }
  if (contactIdentifiers_) {
    kx::Array contacts(contactIdentifiers_->begin(), contactIdentifiers_->end());
    d.emplace("contactIdentifiers", Value(std::move(contacts)));
  }
  if (geoUserSessionIDString_) {
    d.emplace("geoUserSessionIDString", Value(*geoUserSessionIDString_));
    d.emplace("geoUserSessionStartTime", Value(Number::Double(geoUserSessionStartTime_)));
    d.emplace("geoUserSessionSequenceNumber",
              Value(Number::UInt32(geoUserSessionSequenceNumber_)));
  }
  d.emplace("userActivityEligibleForPublicIndexing",
            Value(Number::Int32(userActivityEligibleForPublicIndexing_ ? 1 : 0)));
  d.emplace("hasAssociatedUserActivity", Value(Number::Int32(hasAssociatedUserActivity_ ? 1 : 0)));
  return d;
}

std::string KXSearchResult::description() const {
  return baseDescription() + " " + kx::Value(dictionaryRepresentation()).description();
}

// ---------------------------------------------------------------------------
// Copies

void KXSearchResult::copyTo(KXSearchResult& t) const {
  t.title_ = title_;
  t.subtitle_ = subtitle_;
  t.summary_ = summary_;
  t.auxiliaryTitle_ = auxiliaryTitle_;
  t.auxiliarySubtitle_ = auxiliarySubtitle_;
  t.identifier_ = identifier_;
  t.setBit(kHasIdentifier, has_ & kHasIdentifier);
  t.url_ = url_;
  t.flags_ = flags_;
  t.setBit(kHasFlags, has_ & kHasFlags);
  t.numberOfSummaryLines_ = numberOfSummaryLines_;
  t.setBit(kHasNumberOfSummaryLines, has_ & kHasNumberOfSummaryLines);
  if (const std::optional<kx::Dictionary>& props = properties(); props && !props->empty()) {
    t.setAdditionalPropertyDict(*props);
  }
  t.predictionIdentifier_ = predictionIdentifier_;
  t.userActivityType_ = userActivityType_;
  t.bundleID_ = bundleID_;
  t.externalIdentifier_ = externalIdentifier_;
  t.setContentURL(storedContentURLCopy());
  t.protectionClass_ = protectionClass_;
  if (hasSearchResultDomain_) t.setSearchResultDomain(searchResultDomain_);
  t.geoUserSessionIDString_ = geoUserSessionIDString_;
  t.geoUserSessionStartTime_ = geoUserSessionStartTime_;
  t.geoUserSessionSequenceNumber_ = geoUserSessionSequenceNumber_;
  t.contactIdentifiers_ = contactIdentifiers_;
  t.score_ = score_;
  t.topHit_ = topHit_;
  t.hasAssociatedUserActivity_ = hasAssociatedUserActivity_;
  t.setResultScore(resultScore());
  t.setSectionScore(sectionScore());
}

void KXSearchResult::copyFieldsForCopy(KXSearchResult& t) const {
  t.title_ = title_;
  t.subtitle_ = subtitle_;
  t.summary_ = summary_;
  t.auxiliaryTitle_ = auxiliaryTitle_;
  t.auxiliarySubtitle_ = auxiliarySubtitle_;
  t.predictionIdentifier_ = predictionIdentifier_;
  t.userActivityType_ = userActivityType_;
  t.bundleID_ = bundleID_;
  t.protectionClass_ = protectionClass_;
  t.externalIdentifier_ = externalIdentifier_;
  t.setContentURL(storedContentURLCopy());
  t.identifier_ = identifier_;
  t.url_ = url_;
  t.flags_ = flags_;
  t.numberOfSummaryLines_ = numberOfSummaryLines_;
  t.has_ = has_;
  // A pending archive is handed over undecoded: the copy decodes it to the
  // same dictionary if it is ever asked for it.
  {
    std::unique_lock<std::mutex> lock(LazyFillMutex(), std::defer_lock);
    if (archivePending_.load(std::memory_order_acquire)) lock.lock();
    if (archivePending_.load(std::memory_order_relaxed)) {
      t.additionalProperties_.reset();
      t.pendingArchive_ = pendingArchive_;
      t.archivePending_.store(true, std::memory_order_relaxed);
    } else {
      t.additionalProperties_ = additionalProperties_;
      t.pendingArchive_.clear();
      t.archivePending_.store(false, std::memory_order_relaxed);
    }
  }
  t.searchResultDomain_ = searchResultDomain_;
  t.hasSearchResultDomain_ = hasSearchResultDomain_;
  t.geoUserSessionIDString_ = geoUserSessionIDString_;
  t.geoUserSessionStartTime_ = geoUserSessionStartTime_;
  t.geoUserSessionSequenceNumber_ = geoUserSessionSequenceNumber_;
  t.topHit_ = topHit_;
  t.score_ = score_;
  t.contactIdentifiers_ = contactIdentifiers_;
  t.hasAssociatedUserActivity_ = hasAssociatedUserActivity_;
}

std::shared_ptr<KXSearchResult> KXSearchResult::copy() const {
  auto result = std::make_shared<KXSearchResult>();
  copyFieldsForCopy(*result);
  return result;
}
