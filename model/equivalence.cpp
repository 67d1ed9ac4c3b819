// Equivalence: looser than equality. Merging successive updates and folding
// a repeated result into the one already sent ask whether two results stand
// for the same item, which identifiers and URLs answer better than the
// external identity that isEqual looks at.
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"

namespace {

// DOMAIN_APPLICATION, whose results are told apart by their URLs (an application's
// launch URL) rather than by identifiers.
constexpr uint32_t kApplicationDomain = 4;

bool SameURL(const KXSearchResult& a, const KXSearchResult& b) {
  return a.url() && b.url() && *a.url() == *b.url();
}

}  // namespace

bool KXSearchResult::isEquivalentToResult(const KXSearchResult& other) const {
  if (identifier() != 0 && identifier() == other.identifier()) return true;
  return SameURL(*this, other);
}

bool KXSearchResultSection::hasEquivalentResults(const KXSearchResultSection& other) const {
  if (domain() != other.domain() || other.resultsCount() != 1) return false;
  // The caller guarantees a result here; without one nothing is equivalent.
  ResultRef mine = resultsAtIndex(0);
  ResultRef theirs = other.resultsAtIndex(0);
  if (!mine) return false;
  if (domain() == kApplicationDomain) return SameURL(*mine, *theirs);
  // Identifiers decide even when both are 0.
  return mine->identifier() == theirs->identifier();
}
