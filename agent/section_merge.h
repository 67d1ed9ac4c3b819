// Section merging: the working list of a search agent is rebuilt after every
// batch so that each display identifier is shown as one row, titles are not
// repeated under one row, and a map application's rows give way to the
// other source's.
//
// All functions work on a list the caller owns exclusively (the agent's
// query queue). They never change a section that may already be published:
// a kept section that absorbs another is replaced by a copy first. Only the
// absorbed section (a newcomer) is changed, by the map exchange.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kx/KXSearchResultSection.h"

namespace kx {

using SectionRef = std::shared_ptr<KXSearchResultSection>;
using SectionList = std::vector<SectionRef>;

// Section flag bits the merge and the read side look at.
inline constexpr int32_t kSectionFlagCountsAsTopHits = 0x1;
inline constexpr int32_t kSectionFlagKeepSeparate = 0x1000;
inline constexpr int32_t kSectionFlagNotAResult = 0x2000;

inline constexpr char kMapsBundleIdentifier[] = "com.orvex.maps";

// Rebuilds `working`: empty sections dropped, sections of one display
// identifier (compared upper-cased) merged into the first kept one. A merge
// that keeps nothing leaves `working` unchanged.
void MergeSections(SectionList& working);

// Removes the first working section of domain 1, appends `incoming` and
// merges. (Options and de-duplication have been applied to `incoming`.)
void AppendAndMergeSections(SectionList& working, const SectionList& incoming);

// The end-of-query clean-up: removes, last to first, each section whose
// flags hold 0x1000 without 0x2000. True when one was removed.
bool CleanupObsoleteSections(SectionList& working);

// The read side over a published list.
bool ListHasResults(const SectionList& sections);
// Indexes of the sections of the same kind as `section`: its domain, or 0
// when it carries flag 0x1.
std::vector<size_t> IndexesOfCompatibleSection(const SectionList& sections,
                                               const KXSearchResultSection& section);

}  // namespace kx
