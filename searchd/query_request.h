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

struct QueryRequest {
  uint32_t queryID = 0;
  std::string text;                      // "QS"
  std::string language;                  // "KL", "" when none
  std::optional<std::set<uint32_t>> domains;  // "DA"; absent means every domain
  std::set<std::string> excludedBundles;      // "BA"
  size_t maxCount = kDefaultMaxCount;         // "QC"; absent or not positive: 13

  bool wantsDomain(uint32_t domain) const { return !domains || domains->count(domain) > 0; }
};

// Reads the request; nullopt when "QID" is missing or info is no
// dictionary. Values of the wrong type count as absent.
std::optional<QueryRequest> ReadQueryRequest(const Value& info);

}  // namespace kx::searchd
