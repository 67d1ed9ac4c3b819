// Contacts from vCard 3.0 and 4.0 files: one item per card.
#pragma once

#include <string>
#include <string_view>

#include "searchd/parse_result.h"

namespace kx::searchd {

// Parses every BEGIN:VCARD ... END:VCARD block of `content`: folded lines
// are joined, values unescaped, several values per property kept. A card
// without FN or N, an unterminated card or a file with no card is an error
// for the whole file, so a damaged file is never half indexed.
ParseResult ParseVCards(const std::string& path, std::string_view content);

}  // namespace kx::searchd
