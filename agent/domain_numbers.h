// The search domain numbers the agent treats specially.
#pragma once

#include <cstdint>

namespace kx {

inline constexpr uint32_t kDomainTopHits = 0;
inline constexpr uint32_t kDomainOther = 1;  // also the search-through section
inline constexpr uint32_t kDomainPerson = 2;
inline constexpr uint32_t kDomainApplication = 4;
inline constexpr uint32_t kDomainVantle = 16;     // server suggestions
inline constexpr uint32_t kDomainWebSearch = 17;  // server web results
inline constexpr uint32_t kDomainZKWS = 22;       // zero-keyword suggestions
inline constexpr uint32_t kDomainCoreSkylume = 23;

inline bool IsServerDomain(uint32_t domain) {
  return domain == kDomainVantle || domain == kDomainWebSearch;
}

}  // namespace kx
