// Line-oriented reading of small configuration texts (machine-info, desktop
// entries): lines split at '\n', blanks around them trimmed.
#pragma once

#include <string_view>

namespace kx {

// `s` without leading and trailing spaces, tabs, carriage returns and
// newlines.
inline std::string_view TrimBlanks(std::string_view s) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t begin = s.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return s.substr(begin, s.find_last_not_of(kBlanks) - begin + 1);
}

// Calls `visit` with every trimmed line of `text`, in order.
template <class Visit>
void ForEachTrimmedLine(std::string_view text, Visit&& visit) {
  while (!text.empty()) {
    const size_t newline = text.find('\n');
    visit(TrimBlanks(text.substr(0, newline)));
    if (newline == std::string_view::npos) break;
    text.remove_prefix(newline + 1);
  }
}

}  // namespace kx
