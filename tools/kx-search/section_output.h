// What kx-search prints for a list of sections: the JSON object of one
// delegate update, and the listing for a person.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kx/KXSearchResultSection.h"

namespace kx::cli {

using SectionList = std::vector<std::shared_ptr<KXSearchResultSection>>;

// {"text", "seq", "kind", "sections": [...]}; keys with no value are left out.
nlohmann::json UpdateJson(const std::string& text, uint32_t seq, const char* kind,
                          const SectionList& sections);

// The section's title as the library names its domain; the domain key when
// the library has no name for it.
std::string SectionTitle(const KXSearchResultSection& section);

// Section titles, then one row per result numbered across sections (the
// numbers --open takes), titles aligned in a column before the subtitles.
// `colour` adds terminal attributes; row number `selected` (when not 0) is
// marked.
std::string Listing(const SectionList& sections, bool colour, size_t selected = 0);

// The number of results across sections.
size_t ResultCount(const SectionList& sections);

// One line while typing: the text and each section's title and size.
std::string Summary(const std::string& text, const SectionList& sections);

}  // namespace kx::cli
