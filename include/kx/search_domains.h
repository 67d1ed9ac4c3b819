// Search domains: the small numbers that say which kind of content a result,
// section, query or preference belongs to, their string keys, and lookups
// between the forms. Every function is stateless over constant tables and
// may be called from any thread.
//
// Domain numbers run from 0 to 26; 27 (`SearchResultDomainCount`) doubles as
// "no domain" after a failed key lookup. Strings returned as string_view
// point into static storage and stay valid for the life of the process.
// Domain lists box their numbers as 32-bit signed numbers when they travel
// as values.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kx/value.h"

// The number of native search domains, 27; also the "no domain" value.
KX_EXPORT uint64_t SearchResultDomainCount();

// True on the tablet device kind.
KX_EXPORT bool KXIsTabula();

// Application-supplied domains beyond the native ones: there are none. The
// getter answers an empty array and the setter has no effect.
KX_EXPORT kx::Array KXGetExtendedDomains();
KX_EXPORT void KXSetExtendedDomains(const kx::Array& domains);

// The key of `domain`; nullopt beyond 26.
KX_EXPORT std::optional<std::string_view> KXKeyForSearchDomain(uint32_t domain);

// The domain of `key` (exact, case-sensitive match); 27 when no row
// matches. A key holding any Unicode white space is a programming error that
// stops the process after a level-2 log line.
KX_EXPORT uint32_t KXSearchDomainForKey(std::string_view key);

// Looks up "<displayIdentifier> <category>", or "<displayIdentifier>" when
// the category is empty, through KXSearchDomainForKey: any non-empty
// category stops the process there. An absent part reads as "(null)".
KX_EXPORT uint32_t KXSearchDomainForDisplayIdentifierAndCategory(
    std::optional<std::string_view> displayIdentifier, std::optional<std::string_view> category);

// Stores the display identifier (a native domain's key) and the category
// (always "") of `domain` in whichever out parameter is given; beyond 26
// neither is touched.
KX_EXPORT void KXSearchDomainGetDisplayIdentifierAndCategory(
    uint32_t domain, std::optional<std::string_view>* displayIdentifier,
    std::optional<std::string_view>* category);
KX_EXPORT std::optional<std::string_view> KXDisplayIdentifierForDomain(uint32_t domain);
KX_EXPORT std::optional<std::string_view> KXCategoryForDomain(uint32_t domain);

// The section title of `domain` from the library's "Search Results" table
// ("" when the table lacks it); nullopt beyond 26.
KX_EXPORT std::optional<std::string> KXDisplayNameForDomain(uint32_t domain);

// The name an application gives the category of `domain` in its own string
// table, else the application's localised name, else the category itself
// ("" for a native domain, nullopt beyond 26).
KX_EXPORT std::optional<std::string> KXDisplayNameForExtendedDomain(uint32_t domain);

// The user-visible domains in number order: every domain but 1, 11 and 14,
// and but 12 on a tablet (24 on a phone, 23 on a tablet).
KX_EXPORT std::vector<std::string_view> KXAllDomainKeys();
KX_EXPORT std::vector<uint32_t> KXAllDomainsVector();
