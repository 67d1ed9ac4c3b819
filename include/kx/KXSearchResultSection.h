// KXSearchResultSection: the results of one search domain together with what
// is needed to present them (owning application, category, icon, scheme).
//
// Wire format, in the order writeTo emits it:
//   1 domain (uint32, has-bit 0)  2 icon  3 displayIdentifier  4 category
//   5 scheme (strings, when present)  6 flags (int32, has-bit 1)
//   7 one KXSearchResult record per result, length-delimited, in order
//   8 hiddenExtResults: the plain keyed archive of the array, when present
//   9 resultSetIdentifier (when present)
// The domain precedes the results so that a reader can hand it to results
// that carry none. serializeTo appends the end-of-section mark 0x04 (field
// 0, wire type 4) that the packed result stream puts after every section and
// that stops every section reader.
//
// The result set keeps insertion order and refuses a result that matches a
// member by the record's hash and isEqual.
//
// Threads: one writer at a time; readers may share a section nobody writes.
#pragma once

#include "kx/export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kx/value.h"
#include "kx/KXSearchResult.h"
#include "kx/WireCodable.h"

namespace kx {
class ResultSet;
}  // namespace kx

class KXSearchResultSection;

// Decodes one section from `reader` into `section`, up to the end of the
// data or an end-of-section mark (consumed). Results are decoded and added
// with addResults. False, keeping what was decoded before, on a reader
// error, an unskippable field or a damaged nested result.
KX_EXPORT bool KXSearchResultSectionReadFrom(KXSearchResultSection& section, WireReader& reader);

// Stores the section's domain in `*domain` (the last tag 1 wins; 0xFFFFFFFF
// when there is none) and moves past the whole section, skipping results
// without building them.
KX_EXPORT bool KXSearchResultSectionReadDomainFrom(uint32_t* domain, WireReader& reader);

// Stores the first tag 1 in `*domain` and returns true at once, leaving the
// reader just after that varint; the rest of the section is not consumed.
// Without a tag 1 before the end or the mark, `*domain` stays 0xFFFFFFFF.
KX_EXPORT bool KXSearchResultSectionReadFirstDomainOnly(uint32_t* domain, WireReader& reader);

class KX_EXPORT KXSearchResultSection : public WireCodable {
 public:
  using ResultRef = std::shared_ptr<KXSearchResult>;
  static constexpr size_t kNotFound = SIZE_MAX;
  // What the domain readers store when a section has no domain.
  static constexpr uint32_t kNoDomain = 0xFFFFFFFF;

  KXSearchResultSection();
  ~KXSearchResultSection() override;
  KXSearchResultSection(const KXSearchResultSection&) = delete;
  KXSearchResultSection& operator=(const KXSearchResultSection&) = delete;

  std::string className() const override { return "KXSearchResultSection"; }

  uint32_t domain() const { return domain_; }
  void setDomain(uint32_t v) {
    domain_ = v;
    has_ |= kHasDomain;
  }
  bool hasDomain() const { return has_ & kHasDomain; }
  void setHasDomain(bool v) { setBit(kHasDomain, v); }

  const std::optional<std::string>& icon() const { return icon_; }
  void setIcon(std::optional<std::string> v) { icon_ = std::move(v); }
  bool hasIcon() const { return icon_.has_value(); }
  const std::optional<std::string>& displayIdentifier() const { return displayIdentifier_; }
  void setDisplayIdentifier(std::optional<std::string> v) { displayIdentifier_ = std::move(v); }
  bool hasDisplayIdentifier() const { return displayIdentifier_.has_value(); }
  const std::optional<std::string>& category() const { return category_; }
  void setCategory(std::optional<std::string> v) { category_ = std::move(v); }
  bool hasCategory() const { return category_.has_value(); }
  const std::optional<std::string>& scheme() const { return scheme_; }
  void setScheme(std::optional<std::string> v) { scheme_ = std::move(v); }
  bool hasScheme() const { return scheme_.has_value(); }

  int32_t flags() const { return flags_; }
  void setFlags(int32_t v) {
    flags_ = v;
    has_ |= kHasFlags;
  }
  bool hasFlags() const { return has_ & kHasFlags; }
  void setHasFlags(bool v) { setBit(kHasFlags, v); }

  const std::optional<std::string>& resultSetIdentifier() const { return resultSetIdentifier_; }
  void setResultSetIdentifier(std::optional<std::string> v) {
    resultSetIdentifier_ = std::move(v);
  }

  // In memory only.
  bool isGlanceCategory() const { return isGlanceCategory_; }
  void setIsGlanceCategory(bool v) { isGlanceCategory_ = v; }

  // --- Hidden results --------------------------------------------------------
  // Entries describing results hidden as duplicates; created empty when
  // absent.
  kx::Array& hiddenExtResults();
  // Without creating: null when absent.
  const kx::Array* hiddenExtResultsIfPresent() const {
    return hiddenExtResults_ ? &*hiddenExtResults_ : nullptr;
  }
  void setHiddenExtResults(std::optional<kx::Array> v) { hiddenExtResults_ = std::move(v); }
  // Makes the array if absent, then appends `entry` unless it is nil.
  void addHiddenExtResult(const kx::Value& entry);

  // --- Results -----------------------------------------------------------------
  // Snapshot of the set in order (empty when there is no set).
  std::vector<ResultRef> results() const;
  // The set itself; null until the first result is added.
  const kx::ResultSet* resultSet() const { return resultSet_.get(); }
  kx::ResultSet* resultSet() { return resultSet_.get(); }
  size_t resultsCount() const;
  size_t indexOfResult(const KXSearchResult& result) const;
  // Null when there is no set or `index` is out of range.
  ResultRef resultsAtIndex(size_t index) const;
  // `index` must be below resultsCount() when a set exists; a larger one
  // raises kx::Exception "NSRangeException". Nothing without a set.
  void removeResultsAtIndex(size_t index);
  // Empties the set (an absent set stays absent).
  void clearResults();

  // Creates the set if absent; a result without a domain takes this
  // section's domain; then appends it unless an equal result is present.
  void addResults(const ResultRef& result);
  // The same, inserting at `index` (<= resultsCount(), else the range
  // exception above).
  void addResults(const ResultRef& result, size_t index);
  // Creates the set if absent and appends every element, leaving the
  // results' domains as they are.
  void addResultsFromArray(const std::vector<ResultRef>& results);

  // True with results; otherwise serialized().
  bool hasResults() const;
  // Whether the section stands for results kept elsewhere; false here.
  virtual bool serialized() const { return false; }

  // --- Coding -----------------------------------------------------------------
  bool readFrom(WireReader& reader) override;
  void writeTo(WireWriter& writer) const override;
  // writeTo, then the end-of-section mark 0x04.
  void serializeTo(WireWriter& writer) const;

  // --- Comparison, description, copies --------------------------------------
  // Same class; same has-bits and, where set, values; icon, display
  // identifier, category, scheme and resultSetIdentifier both absent or
  // equal; result sets both absent or equal. hiddenExtResults and
  // isGlanceCategory are not compared.
  bool isEqual(const kx::Object& other) const override;
  // Includes hiddenExtResults although isEqual ignores them.
  size_t hash() const override;
  kx::Dictionary dictionaryRepresentation() const;
  std::string description() const override;

  // Copies into `target`: domain and flags with their bits (only when
  // set), the four strings, this section's result objects themselves (the
  // target's results are cleared first, only when this section has
  // results), hiddenExtResults and resultSetIdentifier.
  void copyTo(KXSearchResultSection& target) const;
  // A new section of the receiver's class with the same fields and copies
  // of the results (KXSearchResult::copy), added with addResults in order.
  // isGlanceCategory is copied by neither.
  virtual std::shared_ptr<KXSearchResultSection> copy() const;

  // --- Equivalence -----------------------------------------------------------
  // Same domain, `other` holds exactly one result and this section at least
  // one; then for the application domain the first results' urls are equal,
  // for any other domain their identifiers.
  bool hasEquivalentResults(const KXSearchResultSection& other) const;

 protected:
  // The copy() fields into a new, empty section.
  void copyFieldsForCopy(KXSearchResultSection& target) const;

 private:
  friend bool KXSearchResultSectionReadFrom(KXSearchResultSection& section, WireReader& reader);

  static constexpr uint8_t kHasDomain = 1;
  static constexpr uint8_t kHasFlags = 2;
  void setBit(uint8_t bit, bool v) { has_ = v ? (has_ | bit) : (has_ & ~bit); }
  kx::ResultSet& ensureResultSet();
  void giveDomainTo(KXSearchResult& result) const;

  std::optional<std::string> icon_;
  std::optional<std::string> displayIdentifier_;
  std::optional<std::string> category_;
  std::optional<std::string> scheme_;
  std::optional<std::string> resultSetIdentifier_;
  std::optional<kx::Array> hiddenExtResults_;
  std::unique_ptr<kx::ResultSet> resultSet_;
  uint32_t domain_ = 0;
  int32_t flags_ = 0;
  uint8_t has_ = 0;
  bool isGlanceCategory_ = false;
};
