// Text helpers of the search agent: the trimming of query texts, the
// case-insensitive comparisons of display identifiers and headers, and the
// encoding of a query text into a URL query.
#pragma once

#include <string>
#include <string_view>

namespace kx {

// `text` without white space (space separators and tabs, not line breaks)
// at either end.
std::string TrimWhiteSpace(std::string_view text);
// Unicode upper case, locale independent.
std::string UppercaseString(std::string_view text);
// Equal after Unicode case folding.
bool CaseInsensitiveEqual(std::string_view a, std::string_view b);
// Percent-encodes every byte that may not stand in a URL query: letters,
// digits and "!$&'()*+,-./:;=?@_~" stay, a space becomes "%20".
std::string PercentEncodeForURLQuery(std::string_view text);

}  // namespace kx
