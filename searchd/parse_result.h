// What a source parser makes of one file: its items, or why it was skipped.
#pragma once

#include <string>
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

// "file://" plus the percent-encoded absolute path.
std::string FileUrl(const std::string& path);

}  // namespace kx::searchd
