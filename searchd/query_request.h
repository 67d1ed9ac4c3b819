// An "OpenQuery" request as the daemon reads it from the message info.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "kx/value.h"

namespace kx::searchd {

inline constexpr size_t kDefaultMaxCount = 13;
// A client may ask for more, but a section never carries more than this.
inline constexpr size_t kMaxCountCeiling = 200;

// What one request may ask for. Longer texts and longer lists are refused
// whole rather than cut: a cut text would answer a question nobody asked.
// A typed query is a few words; the domain table has a few dozen entries.
inline constexpr size_t kMaxQueryTextBytes = 1024;
inline constexpr size_t kMaxQueryDomains = 256;
inline constexpr size_t kMaxExcludedBundles = 1024;
inline constexpr size_t kMaxNameBytes = 255;  // a language tag or a bundle identifier

struct QueryRequest {
  uint32_t queryID = 0;
  std::string text;                      // "QS"
  std::string language;                  // "KL", "" when none
  std::optional<std::set<uint32_t>> domains;  // "DA"; absent means every domain
  std::set<std::string> excludedBundles;      // "BA"
  size_t maxCount = kDefaultMaxCount;         // "QC"; absent or not positive: 13
  // Why the request is refused; empty when it is within the bounds above.
  std::string refusal;

  bool wantsDomain(uint32_t domain) const { return !domains || domains->count(domain) > 0; }
};

// Reads the request; nullopt when "QID" is missing or info is no
// dictionary. Values of the wrong type count as absent. A request beyond a
// bound comes back with only its id and `refusal`; the oversized value is
// never copied.
std::optional<QueryRequest> ReadQueryRequest(const Value& info);

}  // namespace kx::searchd
