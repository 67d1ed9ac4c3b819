#include "agent/section_merge.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "agent/query_text.h"
#include "kx/KXServerResult.h"
#include "kx/log.h"
#include "agent/domain_numbers.h"

namespace kx {
namespace {

// The bundle a section's rows come from: its first result's bundleID, else
// that result's server bundle_id.
std::optional<std::string> BundleOfSection(const KXSearchResultSection& section) {
  const KXSearchResultSection::ResultRef first = section.resultsAtIndex(0);
  if (!first) return std::nullopt;
  if (first->bundleID()) return first->bundleID();
  return KXServerResult(*first).bundle_id();
}

// Exchanges the rows and identity of the kept map section `kept` and the
// newcomer `other`, so the row takes the other source's identity and rows.
void ExchangeSectionContents(KXSearchResultSection& kept, KXSearchResultSection& other) {
  const std::vector<KXSearchResultSection::ResultRef> keptResults = kept.results();
  kept.clearResults();
  kept.addResultsFromArray(other.results());
  other.clearResults();
  other.addResultsFromArray(keptResults);

  const uint32_t domain = kept.domain();
  kept.setDomain(other.domain());
  other.setDomain(domain);
  std::optional<std::string> identifier = kept.displayIdentifier();
  kept.setDisplayIdentifier(other.displayIdentifier());
  other.setDisplayIdentifier(std::move(identifier));
  std::optional<std::string> category = kept.category();
  kept.setCategory(other.category());
  other.setCategory(std::move(category));
}

// The titles that must not be carried into `kept` from `incoming` because
// the top-hits section already shows them for the same application.
void AddTopHitTitles(const KXSearchResultSection* topHits,
                     const std::optional<std::string>& keptBundle,
                     const std::optional<std::string>& incomingBundle,
                     const KXSearchResultSection& incoming,
                     std::unordered_set<std::string>& titles) {
  if (!topHits) return;
  const std::optional<std::string>& bundle = keptBundle ? keptBundle : incomingBundle;
  std::optional<std::string> identifier;
  if (!bundle && incoming.displayIdentifier())
    identifier = UppercaseString(*incoming.displayIdentifier());
  for (const KXSearchResultSection::ResultRef& hit : topHits->results()) {
    if (!hit->title()) continue;
    bool sameApplication;
    if (bundle) {
      sameApplication = hit->bundleID() == bundle;
    } else {
      const std::optional<std::string> header = KXServerResult(*hit).section_header();
      sameApplication = header && identifier && UppercaseString(*header) == *identifier;
    }
    if (sameApplication) titles.insert(*hit->title());
  }
}

void MergeInto(KXSearchResultSection& kept, KXSearchResultSection& incoming,
               const KXSearchResultSection* topHits) {
  std::unordered_set<std::string> titles;
  const std::optional<std::string> keptBundle = BundleOfSection(kept);
  const std::optional<std::string> incomingBundle = BundleOfSection(incoming);
  const bool keptIsMaps = keptBundle == kMapsBundleIdentifier;
  const bool incomingIsMaps = incomingBundle == kMapsBundleIdentifier;

  if (!keptIsMaps && !incomingIsMaps) {
    // Server rows carry their own titles; only on-device rows are filtered
    // against the top hits.
    if (kept.domain() != kDomainVantle)
      AddTopHitTitles(topHits, keptBundle, incomingBundle, incoming, titles);
  } else if (keptIsMaps) {
    ExchangeSectionContents(kept, incoming);
  }

  for (const KXSearchResultSection::ResultRef& result : kept.results())
    if (result->title()) titles.insert(*result->title());
  // Titles added here are deliberately not put in `titles`: two newcomers
  // with the same new title are both carried over.
  for (const KXSearchResultSection::ResultRef& result : incoming.results())
    if (result->title() && !titles.contains(*result->title())) kept.addResults(result);
}

}  // namespace

void MergeSections(SectionList& working) {
  std::unordered_map<std::string, SectionRef> keptByIdentifier;
  SectionList output;
  output.reserve(working.size());
  const SectionRef topHits =
      !working.empty() && working.front()->domain() == kDomainTopHits ? working.front() : nullptr;

  for (const SectionRef& section : SectionList(working)) {
    if (!section->hasResults()) continue;
    std::optional<std::string> key;
    if (section->displayIdentifier()) {
      key = UppercaseString(*section->displayIdentifier());
      auto found = keptByIdentifier.find(*key);
      if (found != keptByIdentifier.end() && !(found->second->flags() & kSectionFlagKeepSeparate)) {
        const SectionRef& kept = found->second;
        size_t index = 0;
        while (index < output.size() && !output[index]->isEqual(*kept)) ++index;
        // The kept section was replaced by a copy that has changed since:
        // the newcomer is dropped. Deliberate; see the header.
        if (index == output.size()) continue;
        SectionRef copy = kept->copy();
        output[index] = copy;
        MergeInto(*copy, *section, topHits.get());
        continue;
      }
    }
    output.push_back(section);
    if (key) keptByIdentifier[*key] = section;
  }
  // A batch without results never wipes what is shown.
  if (!output.empty()) working = std::move(output);
}

void AppendAndMergeSections(SectionList& working, const SectionList& incoming) {
  for (auto it = working.begin(); it != working.end(); ++it) {
    if ((*it)->domain() == kDomainOther) {
      working.erase(it);
      break;
    }
  }
  working.insert(working.end(), incoming.begin(), incoming.end());
  MergeSections(working);
}

bool CleanupObsoleteSections(SectionList& working) {
  KXLOG(7, "### timeout occurs with %d", working.size());
  bool removed = false;
  for (size_t i = working.size(); i-- > 0;) {
    const KXSearchResultSection& section = *working[i];
    if ((section.flags() & (kSectionFlagKeepSeparate | kSectionFlagNotAResult)) !=
        kSectionFlagKeepSeparate)
      continue;
    KXLOG(7, "  # removing section %d [%d]", section.domain(), section.resultsCount());
    working.erase(working.begin() + static_cast<ptrdiff_t>(i));
    removed = true;
  }
  return removed;
}

bool ListHasResults(const SectionList& sections) {
  return !sections.empty() && !(sections.front()->flags() & kSectionFlagNotAResult);
}

std::vector<size_t> IndexesOfCompatibleSection(const SectionList& sections,
                                               const KXSearchResultSection& section) {
  auto kind = [](const KXSearchResultSection& s) {
    return (s.flags() & kSectionFlagCountsAsTopHits) ? 0u : s.domain();
  };
  const uint32_t wanted = kind(section);
  std::vector<size_t> indexes;
  for (size_t i = 0; i < sections.size(); ++i)
    if (kind(*sections[i]) == wanted) indexes.push_back(i);
  return indexes;
}

}  // namespace kx
