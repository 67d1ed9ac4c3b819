#include "kx/KXSearchResultSection.h"

#include "model/result_set.h"

#include <typeinfo>

#include "kx/log.h"
#include "model/record_fields.h"
#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"

namespace {

enum Tag : uint32_t {
  kDomain = 1,
  kIcon = 2,
  kDisplayIdentifier = 3,
  kCategory = 4,
  kScheme = 5,
  kFlags = 6,
  kResults = 7,
  kHiddenExtResults = 8,
  kResultSetIdentifier = 9,
};

}  // namespace

KXSearchResultSection::KXSearchResultSection() = default;
KXSearchResultSection::~KXSearchResultSection() = default;

size_t KXSearchResultSection::resultsCount() const {
  return resultSet_ ? resultSet_->count() : 0;
}

// ---------------------------------------------------------------------------
// Hidden results

kx::Array& KXSearchResultSection::hiddenExtResults() {
  if (!hiddenExtResults_) hiddenExtResults_.emplace();
  return *hiddenExtResults_;
}

void KXSearchResultSection::addHiddenExtResult(const kx::Value& entry) {
  kx::Array& hidden = hiddenExtResults();
  if (!entry.isNil()) hidden.push_back(entry);
}

// ---------------------------------------------------------------------------
// Results

kx::ResultSet& KXSearchResultSection::ensureResultSet() {
  if (!resultSet_) resultSet_ = std::make_unique<kx::ResultSet>();
  return *resultSet_;
}

std::vector<KXSearchResultSection::ResultRef> KXSearchResultSection::results() const {
  return resultSet_ ? resultSet_->array() : std::vector<ResultRef>();
}

size_t KXSearchResultSection::indexOfResult(const KXSearchResult& result) const {
  return resultSet_ ? resultSet_->indexOf(result) : kNotFound;
}

KXSearchResultSection::ResultRef KXSearchResultSection::resultsAtIndex(size_t index) const {
  if (!resultSet_ || index >= resultSet_->count()) return nullptr;
  return resultSet_->at(index);
}

void KXSearchResultSection::removeResultsAtIndex(size_t index) {
  if (resultSet_) resultSet_->removeAt(index);
}

void KXSearchResultSection::clearResults() {
  if (resultSet_) resultSet_->clear();
}

void KXSearchResultSection::giveDomainTo(KXSearchResult& result) const {
  if (!result.hasSearchResultDomain()) result.setSearchResultDomain(domain_);
}

void KXSearchResultSection::addResults(const ResultRef& result) {
  kx::ResultSet& set = ensureResultSet();
  if (!result) return;
  giveDomainTo(*result);
  set.add(result);
}

void KXSearchResultSection::addResults(const ResultRef& result, size_t index) {
  kx::ResultSet& set = ensureResultSet();
  if (!result) return;
  giveDomainTo(*result);
  set.insert(result, index);
}

void KXSearchResultSection::addResultsFromArray(const std::vector<ResultRef>& results) {
  kx::ResultSet& set = ensureResultSet();
  for (const ResultRef& r : results) {
    if (r) set.add(r);
  }
}

bool KXSearchResultSection::hasResults() const { return resultsCount() != 0 || serialized(); }

// ---------------------------------------------------------------------------
// Coding

bool KXSearchResultSection::readFrom(WireReader& reader) {
  return KXSearchResultSectionReadFrom(*this, reader);
}

bool KXSearchResultSectionReadFrom(KXSearchResultSection& s, WireReader& reader) {
  uint64_t key;
  while (kx::NextRecordKey(reader, &key)) {
    switch (kx::RecordFieldNumber(key)) {
      case kDomain:
        s.has_ |= KXSearchResultSection::kHasDomain;
        s.domain_ = reader.readUInt32();
        break;
      case kIcon: kx::ReadStringField(reader, s.icon_); break;
      case kDisplayIdentifier: kx::ReadStringField(reader, s.displayIdentifier_); break;
      case kCategory: kx::ReadStringField(reader, s.category_); break;
      case kScheme: kx::ReadStringField(reader, s.scheme_); break;
      case kFlags:
        s.has_ |= KXSearchResultSection::kHasFlags;
        s.flags_ = reader.readInt32();
        break;
      case kResults: {
        WireReaderMark mark;
        if (!reader.placeMark(&mark)) return false;
        auto result = std::make_shared<KXSearchResult>();
        // A damaged result is dropped and ends the section; the reader is
        // left inside the result's bounds.
        if (!KXSearchResultReadFrom(*result, reader)) return false;
        s.addResults(result);
        reader.recallMark(mark);
        break;
      }
      case kHiddenExtResults: {
        std::span<const uint8_t> archive = reader.readDataView();
        s.hiddenExtResults_.reset();
        if (reader.hasError()) break;
        kx::Value root = kx::KeyedUnarchiver::UnarchivedObjectWithData(archive);
        if (root.array()) {
          s.hiddenExtResults_ = std::move(*root.mutableArray());
        } else {
          KXLOG(4, "Hidden results of section %u (%zu bytes) do not decode to an array",
                s.domain_, archive.size());
        }
        break;
      }
      case kResultSetIdentifier: kx::ReadStringField(reader, s.resultSetIdentifier_); break;
      default:  // 0 and numbers beyond 9
        if (!reader.skipField(key)) return false;
        break;
    }
  }
  return !reader.hasError();
}

bool KXSearchResultSectionReadDomainFrom(uint32_t* domain, WireReader& reader) {
  uint32_t found = KXSearchResultSection::kNoDomain;
  bool ok = true;
  uint64_t key;
  // Results are nearly all of a section: the ones that walk plainly are
  // skipped several at a time, and whatever stops that walk (another field,
  // a result that needs the general rules) takes the loop's path below.
  constexpr uint8_t kPlainResultKey =
      (kResults << 3) | static_cast<uint8_t>(WireType::LengthDelimited);
  while (ok) {
    reader.skipPlainNestedRecords(kPlainResultKey);
    if (!kx::NextRecordKey(reader, &key)) break;
    switch (kx::RecordFieldNumber(key)) {
      case kDomain: found = reader.readUInt32(); break;
      case kResults: {
        WireReaderMark mark;
        ok = reader.placeMark(&mark) && KXSearchResultSkipFrom(reader);
        if (ok) reader.recallMark(mark);
        break;
      }
      default: ok = reader.skipField(key); break;
    }
  }
  if (domain) *domain = found;
  return ok && !reader.hasError();
}

bool KXSearchResultSectionReadFirstDomainOnly(uint32_t* domain, WireReader& reader) {
  uint32_t unused;
  if (!domain) domain = &unused;
  *domain = KXSearchResultSection::kNoDomain;
  uint64_t key;
  while (kx::NextRecordKey(reader, &key)) {
    if (kx::RecordFieldNumber(key) == kDomain) {
      *domain = reader.readUInt32();
      return true;
    }
    if (!reader.skipField(key)) return false;
  }
  return !reader.hasError();
}

void KXSearchResultSection::writeTo(WireWriter& w) const {
  if (has_ & kHasDomain) w.writeVarintField(kDomain, domain_);
  if (icon_) w.writeStringField(kIcon, *icon_);
  if (displayIdentifier_) w.writeStringField(kDisplayIdentifier, *displayIdentifier_);
  if (category_) w.writeStringField(kCategory, *category_);
  if (scheme_) w.writeStringField(kScheme, *scheme_);
  if (has_ & kHasFlags) w.writeInt32Field(kFlags, flags_);
  if (resultSet_) {
    for (size_t i = 0; i < resultSet_->count(); ++i) {
      w.writeMessageField(kResults, *resultSet_->at(i));
    }
  }
  if (hiddenExtResults_) {
    if (std::optional<std::vector<uint8_t>> archive =
            kx::KeyedArchiver::ArchivedDataWithRootObject(kx::Value(*hiddenExtResults_))) {
      w.writeDataField(kHiddenExtResults, *archive);
    } else {
      // Left out: the reader finds them absent, as it would on an archive
      // it cannot decode.
      KXLOG(3, "Hidden results of section %u cannot be archived", domain_);
    }
  }
  if (resultSetIdentifier_) w.writeStringField(kResultSetIdentifier, *resultSetIdentifier_);
}

void KXSearchResultSection::serializeTo(WireWriter& writer) const {
  writeTo(writer);
  writer.writeKey(0, WireType::EndGroup);
}

// ---------------------------------------------------------------------------
// Comparison and description

bool KXSearchResultSection::isEqual(const kx::Object& other) const {
  if (this == &other) return true;
  if (typeid(other) != typeid(*this)) return false;
  const auto& o = static_cast<const KXSearchResultSection&>(other);
  if ((has_ & kHasDomain) != (o.has_ & kHasDomain)) return false;
  if ((has_ & kHasDomain) && domain_ != o.domain_) return false;
  if (icon_ != o.icon_ || displayIdentifier_ != o.displayIdentifier_ ||
      category_ != o.category_ || scheme_ != o.scheme_) {
    return false;
  }
  if ((has_ & kHasFlags) != (o.has_ & kHasFlags)) return false;
  if ((has_ & kHasFlags) && flags_ != o.flags_) return false;
  if (bool(resultSet_) != bool(o.resultSet_)) return false;
  if (resultSet_ && !resultSet_->isEqual(*o.resultSet_)) return false;
  return resultSetIdentifier_ == o.resultSetIdentifier_;
}

size_t KXSearchResultSection::hash() const {
  uint64_t h = (has_ & kHasDomain) ? uint64_t{domain_} * uint64_t{0x9e3779b1} : 0;
  h ^= kx::HashOptionalString(icon_) ^ kx::HashOptionalString(displayIdentifier_) ^ kx::HashOptionalString(category_) ^
       kx::HashOptionalString(scheme_);
  if (has_ & kHasFlags) h ^= static_cast<uint64_t>(int64_t{flags_}) * uint64_t{2654435761};
  if (resultSet_) h ^= resultSet_->hash();
  if (hiddenExtResults_) h ^= kx::Value(*hiddenExtResults_).hash();
  return static_cast<size_t>(h);
}

kx::Dictionary KXSearchResultSection::dictionaryRepresentation() const {
  using kx::Number;
  using kx::Value;
  kx::Dictionary d;
  auto putString = [&d](const char* key, const std::optional<std::string>& s) {
    if (s) d.emplace(key, Value(*s));
  };
  if (has_ & kHasDomain) d.emplace("domain", Value(Number::UInt32(domain_)));
  putString("icon", icon_);
  putString("displayIdentifier", displayIdentifier_);
  putString("category", category_);
  putString("scheme", scheme_);
  if (has_ & kHasFlags) d.emplace("flags", Value(Number::Int32(flags_)));
  putString("resultSetIdentifier", resultSetIdentifier_);
  if (resultsCount() != 0) {
    kx::Array results;
    results.reserve(resultSet_->count());
    for (size_t i = 0; i < resultSet_->count(); ++i) {
      results.emplace_back(resultSet_->at(i)->dictionaryRepresentation());
    }
    d.emplace("results", Value(std::move(results)));
  }
  return d;
}

std::string KXSearchResultSection::description() const {
  return baseDescription() + " " + kx::Value(dictionaryRepresentation()).description();
}

// ---------------------------------------------------------------------------
// Copies

void KXSearchResultSection::copyTo(KXSearchResultSection& t) const {
  if (has_ & kHasDomain) t.setDomain(domain_);
  if (has_ & kHasFlags) t.setFlags(flags_);
  t.icon_ = icon_;
  t.displayIdentifier_ = displayIdentifier_;
  t.category_ = category_;
  t.scheme_ = scheme_;
  if (resultsCount() != 0 && &t != this) {
    t.clearResults();
    for (size_t i = 0; i < resultSet_->count(); ++i) t.addResults(resultSet_->at(i));
  }
  t.hiddenExtResults_ = hiddenExtResults_;
  t.resultSetIdentifier_ = resultSetIdentifier_;
}

void KXSearchResultSection::copyFieldsForCopy(KXSearchResultSection& t) const {
  if (has_ & kHasDomain) t.setDomain(domain_);
  if (has_ & kHasFlags) t.setFlags(flags_);
  t.icon_ = icon_;
  t.displayIdentifier_ = displayIdentifier_;
  t.category_ = category_;
  t.scheme_ = scheme_;
  if (resultSet_) {
    for (size_t i = 0; i < resultSet_->count(); ++i) t.addResults(resultSet_->at(i)->copy());
  }
  t.hiddenExtResults_ = hiddenExtResults_;
  t.resultSetIdentifier_ = resultSetIdentifier_;
}

std::shared_ptr<KXSearchResultSection> KXSearchResultSection::copy() const {
  auto section = std::make_shared<KXSearchResultSection>();
  copyFieldsForCopy(*section);
  return section;
}
