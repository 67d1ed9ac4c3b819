// Search preferences: which domains the user searches, in which order, and
// whether the internet-backed domains (16, server suggestions, and 17, web
// search) may be used. Values live in the preference domain
// "com.orvex.skylumeui"; values left in the legacy domain
// "com.orvex.homedeck" move over once per process the first time their new
// key is found missing.
//
// Stored lists may hold the legacy composite entry
// "com.orvex.messages SMSSearch"; every list read here has it replaced, in
// place, by "DOMAIN_CHATTER" before any key lookup.
//
// All functions may be called from any thread; each reads the store afresh.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

// Preference domains.
inline constexpr char kKXSearchPreferencesDomain[] = "com.orvex.skylumeui";
inline constexpr char kKXLegacySearchPreferencesDomain[] = "com.orvex.homedeck";

// Preference keys.
inline constexpr char kKXSearchResultOrderingKey[] = "HDSearchResultOrdering";
inline constexpr char kKXSearchZKWSResultOrderingKey[] = "HDSearchZKWSResultOrdering";
inline constexpr char kKXSearchDisabledDomainsKey[] = "HDSearchDisabledDomains";
inline constexpr char kKXSearchDisabledBundlesKey[] = "HDSearchDisabledBundles";
inline constexpr char kKXSearchLegacyDisabledDomainsKey[] = "HDSearchResultsDisabledDomains";
inline constexpr char kKXSearchInternetDomainsAvailableKey[] = "HDSearchInternetDomainsAvailable";

// System-wide notifications: posted here when internet availability or the
// enabled flag changes, and by the settings side when any preference does.
inline constexpr char kKXSearchInternetDomainsChangedNotification[] =
    "kKXSearchInternetDomainsChangedNotification";
inline constexpr char kKXSearchPreferencesChangedNotification[] =
    "com.orvex.skylumeui.prefschanged";

// Feature keys of the server search service, read by other components.
inline constexpr char SearchVantleEnabledKey[] = "SearchVantleEnabled";
inline constexpr char SmartCategoryRankingEnabledKey[] = "SmartCategoryRankingEnabled";
inline constexpr char SearchVantleLoggingEnabledKey[] = "SearchVantleLoggingEnabledKey";
inline constexpr char SearchVantleServerURLKey[] = "SearchVantleServerURLKey";
inline constexpr char SearchVantleSuggestionsEnabledKey[] = "SearchVantleSuggestionsEnabled";

// The user's stored domain order as keys; nullopt when none is stored.
KX_EXPORT std::optional<std::vector<std::string>> KXCopyPrefsDomains();
// True when no domain order is stored.
KX_EXPORT bool KXDomainOrderingIsTransient();
// Every searchable domain in the user's order (top hits first when asked),
// with server suggestions always present and web search kept last unless
// the user placed it; settings, cloud documents and map categories never
// appear.
KX_EXPORT std::vector<uint32_t> KXGetDomainOrdering(bool includeTopHits);
// The zero-keyword order: 22, 2, 4, 23, 21, 16.
KX_EXPORT std::vector<uint32_t> KXGetZKWDomainOrdering();

// The stored disabled domain keys (after migration only internet domains);
// nullopt when none are stored.
KX_EXPORT std::optional<std::vector<std::string>> KXCopyPrefsDisabledDomains();
// The disabled domain numbers; unless `forPrefs`, 16 and 17 too while the
// internet domains are not both available and enabled.
KX_EXPORT std::set<uint32_t> KXGetDisabledDomains(bool forPrefs);
// The stored disabled domain keys as a set.
KX_EXPORT std::set<std::string> KXGetDisabledDomainSet();
// The disabled bundle identifiers; applications can never be disabled.
KX_EXPORT std::set<std::string> KXGetDisabledBundleSet();

// The enabled domains in search order.
KX_EXPORT std::vector<uint32_t> KXSearchDomains();
// The enabled zero-keyword domains; empty when zero-keyword suggestions
// (22) are disabled.
KX_EXPORT std::vector<uint32_t> KXZKWSearchDomains(bool includeInternetDomains);

KX_EXPORT bool KXGetInternetDomainsAvailable();
KX_EXPORT void KXSetInternetDomainsAvailable(bool available);
// The process's own switch for internet domains (initially on), combined
// with the user's choice of domains.
KX_EXPORT bool KXGetInternetDomainsEnabled();
KX_EXPORT void KXSetInternetDomainsEnabled(bool enabled);
// Whether turning the process's switch on would enable internet domains.
KX_EXPORT bool KXCanEnableInternetDomains();
