// Result options and de-duplication of the server sections (domains 16 and
// 17) of a new batch, applied before the batch is merged.
//
// A server result that repeats what an on-device section already shows (the
// same address, store item or application activity) is taken out and
// recorded in its section's hiddenExtResults for the feedback reports; what
// is left is split into one section per section header; each may receive a
// trailing "more" row; sections left empty disappear.
#pragma once

#include <string>
#include <string_view>

#include "agent/section_merge.h"

namespace kx {

// The address with its scheme ("http://www.", "https://www.", "https://",
// "http://", tested in that order on the running value) and any "/" at
// either end removed. Case-sensitive.
std::string StrippedURL(std::string_view url);

// Edits `incoming` in place; the de-duplication tables are built from
// `working` and `incoming`. Results of `working` are only read.
void HandleOptionsForNewSections(const SectionList& working, SectionList& incoming);

// The first result is a maps category result.
bool SectionNeedsMoreMapsOption(const KXSearchResultSection& section);

// Some section carries a server domain.
bool HasVantleNews(const SectionList& sections);

}  // namespace kx
