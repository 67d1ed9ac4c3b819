// What a source parser makes of one file: its items, or why it was skipped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "searchd/item.h"

namespace kx::searchd {

struct ParseResult {
  std::vector<Item> items;
  std::string error;    // empty when the file parsed
  std::string warning;  // logged; the items are kept (a document found by name only)
  bool ok() const { return error.empty(); }
  static ParseResult Failure(std::string why) {
    ParseResult r;
    r.error = std::move(why);
    return r;
  }
};

// Parsers refuse files above this size before reading them: a personal
// data file this large is not what its extension claims.
inline constexpr size_t kMaxSourceFileBytes = 4 * 1024 * 1024;

// `text` with every byte that is not an ASCII letter or digit and not in
// `kept` written as %XX; bytes above 0x7F stay as they are when
// `keepNonAscii`.
std::string PercentEncoded(std::string_view text, std::string_view kept, bool keepNonAscii);

// "file://" plus the percent-encoded absolute path.
std::string FileUrl(const std::string& path);

}  // namespace kx::searchd
