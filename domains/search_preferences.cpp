#include "kx/search_preferences.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string_view>

#include "domains/search_preferences_internal.h"
#include "kx/KXDomainManager.h"
#include "kx/log.h"
#include "kx/search_domains.h"
#include "kx/value.h"
#include "platform/notify/notify.h"
#include "platform/prefs/preferences.h"

namespace {

using KeyList = std::vector<std::string>;
using DomainList = std::vector<uint32_t>;
using kx::PreferenceStore;

constexpr uint32_t kTopHits = 0;
constexpr uint32_t kCloudDocument = 15;
constexpr uint32_t kVantle = 16;
constexpr uint32_t kWebSearch = 17;
constexpr uint32_t kSettings = 19;
constexpr uint32_t kMapCategory = 21;
constexpr uint32_t kZKWS = 22;
constexpr uint32_t kNoDomain = 27;

constexpr std::string_view kLegacyMessagesEntry = "com.orvex.messages SMSSearch";
constexpr std::string_view kChatterKey = "DOMAIN_CHATTER";
constexpr std::string_view kVantleKey = "DOMAIN_VANTLE";
constexpr std::string_view kApplicationKey = "DOMAIN_APPLICATION";
constexpr std::string_view kWebSearchKey = "DOMAIN_WEBSEARCH";
constexpr std::string_view kApplicationBundle = "com.orvex.application";

constexpr std::string_view kDefaultOrdering[] = {
    "DOMAIN_APPLICATION", "DOMAIN_VANTLE",    "DOMAIN_PERSON",      "DOMAIN_PSEUDOCONTACT",
    "DOMAIN_MUSIC",       "DOMAIN_PODCAST",   "DOMAIN_VIDEO",       "DOMAIN_AUDIOBOOK",
    "DOMAIN_NOTE",        "DOMAIN_EVENT",     "DOMAIN_CALCULATION", "DOMAIN_CONVERSION",
    "DOMAIN_CHATTER",     "DOMAIN_WEBSEARCH", "DOMAIN_SETTINGS",    "DOMAIN_CORESKYLUME",
};

// Runs a migration at most once per process. Unlike std::call_once it can be
// re-armed, which tests need to exercise the migrations more than once.
class OncePerProcess {
 public:
  template <class F>
  void run(F&& migrate) {
    if (done_.load(std::memory_order_acquire)) return;
    std::lock_guard lock(mutex_);
    if (done_.load(std::memory_order_relaxed)) return;
    migrate();
    done_.store(true, std::memory_order_release);
  }
  void reset() {
    std::lock_guard lock(mutex_);
    done_.store(false, std::memory_order_relaxed);
  }

 private:
  std::mutex mutex_;
  std::atomic<bool> done_{false};
};

OncePerProcess gOrderingMigration;
OncePerProcess gDisabledDomainsMigration;
OncePerProcess gInternetAvailabilityMigration;

// The process's own switch for internet domains.
std::atomic<bool> _internetDomainsEnabled{true};

// A stored list of strings. Anything else under the key counts as absent,
// and entries that are not strings are skipped; both are logged.
std::optional<KeyList> StringList(const kx::Value& value, std::string_view key) {
  if (value.isNil()) return std::nullopt;
  const kx::Array* array = value.array();
  if (!array) {
    KXLOG(3, "Ignoring preference %s: expected a list, found %@", key, value);
    return std::nullopt;
  }
  KeyList list;
  list.reserve(array->size());
  for (const kx::Value& entry : *array) {
    if (const std::string* string = entry.string())
      list.push_back(*string);
    else
      KXLOG(3, "Ignoring entry %@ of preference %s: not a string", entry, key);
  }
  return list;
}

std::optional<KeyList> ReadList(std::string_view key, std::string_view domain) {
  return StringList(PreferenceStore::CopyValue(key, domain), key);
}

kx::Value ListValue(const KeyList& list) {
  kx::Array array(list.begin(), list.end());
  return kx::Value(std::move(array));
}

void ReplaceLegacyEntry(KeyList& list) {
  std::replace(list.begin(), list.end(), std::string(kLegacyMessagesEntry),
               std::string(kChatterKey));
}

bool Contains(const KeyList& list, std::string_view key) {
  return std::find(list.begin(), list.end(), key) != list.end();
}

void SynchronizeBothDomains() {
  PreferenceStore::Synchronize(kKXSearchPreferencesDomain);
  PreferenceStore::Synchronize(kKXLegacySearchPreferencesDomain);
}

// Moves `key` from the legacy domain to the current one; nil when the
// legacy domain does not hold it.
kx::Value MoveLegacyValue(std::string_view key, const kx::Value& (*convert)(const kx::Value&)) {
  const kx::Value legacy = PreferenceStore::CopyValue(key, kKXLegacySearchPreferencesDomain);
  if (legacy.isNil()) return legacy;
  PreferenceStore::SetValue(key, convert(legacy), kKXSearchPreferencesDomain);
  PreferenceStore::SetValue(key, kx::Value(), kKXLegacySearchPreferencesDomain);
  SynchronizeBothDomains();
  KXLOG(6, "Moved %s from %s to %s", key, kKXLegacySearchPreferencesDomain,
        kKXSearchPreferencesDomain);
  return legacy;
}

const kx::Value& Verbatim(const kx::Value& value) { return value; }

// A stored flag: a number (booleans included) by its truth; anything else
// is malformed and reads as false.
bool FlagValue(const kx::Value& value) {
  if (const kx::Number* number = value.number()) return number->boolValue();
  if (!value.isNil()) KXLOG(3, "Ignoring preference value %@: not a boolean", value);
  return false;
}

const kx::Value& AsBoolean(const kx::Value& value) {
  static const kx::Value kTrue(true), kFalse(false);
  return FlagValue(value) ? kTrue : kFalse;
}

// Failures are logged by the notification service; the stored change stands.
void PostInternetDomainsChanged() {
  kx::notify::Post(kKXSearchInternetDomainsChangedNotification);
}

}  // namespace

namespace kx {

void ResetSearchPreferencesProcessState() {
  gOrderingMigration.reset();
  gDisabledDomainsMigration.reset();
  gInternetAvailabilityMigration.reset();
  _internetDomainsEnabled.store(true);
}

}  // namespace kx

std::optional<std::vector<std::string>> KXCopyPrefsDomains() {
  std::optional<KeyList> ordering =
      ReadList(kKXSearchResultOrderingKey, kKXSearchPreferencesDomain);
  if (!ordering) {
    gOrderingMigration.run([&] {
      ordering = StringList(MoveLegacyValue(kKXSearchResultOrderingKey, Verbatim),
                            kKXSearchResultOrderingKey);
    });
  }
  if (ordering) ReplaceLegacyEntry(*ordering);
  return ordering;
}

bool KXDomainOrderingIsTransient() { return !KXCopyPrefsDomains().has_value(); }

std::vector<uint32_t> KXGetDomainOrdering(bool includeTopHits) {
  DomainList result;
  result.reserve(SearchResultDomainCount() + 1);
  if (includeTopHits) result.push_back(kTopHits);

  KeyList ordering;
  if (std::optional<KeyList> stored = KXCopyPrefsDomains(); stored && !stored->empty()) {
    ordering = std::move(*stored);
    // Server suggestions are always ordered: next to applications when the
    // user put those first, else first.
    if (!Contains(ordering, kVantleKey)) {
      const bool afterApplications = ordering.front() == kApplicationKey;
      ordering.emplace(ordering.begin() + (afterApplications ? 1 : 0), kVantleKey);
    }
  } else {
    ordering.assign(std::begin(kDefaultOrdering), std::end(kDefaultOrdering));
  }

  std::vector<std::string_view> remaining = KXAllDomainKeys();
  std::erase(remaining, KXKeyForSearchDomain(kTopHits).value());
  for (const std::string& key : ordering) {
    const uint32_t domain = KXSearchDomainForKey(key);
    if (domain >= kNoDomain) continue;
    result.push_back(domain);
    std::erase(remaining, std::string_view(key));
  }

  // Domains the ordering leaves out go before the anchor: web search when
  // it is among them, else whatever the ordering put last. So web search
  // stays last unless the user placed it, and the user's last stays last.
  std::optional<uint32_t> anchor;
  if (std::find(remaining.begin(), remaining.end(), kWebSearchKey) != remaining.end())
    anchor = kWebSearch;
  else if (!result.empty())
    anchor = result.back();
  for (std::string_view key : remaining) {
    const uint32_t domain = KXSearchDomainForKey(key);
    if (!result.empty() && result.back() == anchor)
      result.insert(result.end() - 1, domain);
    else
      result.push_back(domain);
  }

  for (uint32_t hidden : {kSettings, kCloudDocument, kMapCategory}) std::erase(result, hidden);
  return result;
}

std::vector<uint32_t> KXGetZKWDomainOrdering() { return {kZKWS, 2, 4, 23, kMapCategory, kVantle}; }

std::optional<std::vector<std::string>> KXCopyPrefsDisabledDomains() {
  std::optional<KeyList> disabled =
      ReadList(kKXSearchDisabledDomainsKey, kKXSearchPreferencesDomain);
  if (disabled) {
    ReplaceLegacyEntry(*disabled);
    return disabled;
  }
  std::optional<KeyList> legacy =
      ReadList(kKXSearchLegacyDisabledDomainsKey, kKXSearchPreferencesDomain);
  gDisabledDomainsMigration.run([&] {
    // The former single list splits in two: internet domains stay disabled
    // by key, everything else becomes disabled by bundle.
    if (!legacy)
      legacy = ReadList(kKXSearchLegacyDisabledDomainsKey, kKXLegacySearchPreferencesDomain);
    KeyList domains, bundles;
    if (legacy) {
      ReplaceLegacyEntry(*legacy);
      const std::shared_ptr<KXDomainManager> manager = KXDomainManager::defaultManager();
      for (const std::string& key : *legacy) {
        const uint32_t domain = KXSearchDomainForKey(key);
        if (domain == kTopHits) continue;
        const std::optional<std::string_view> bundle = manager->getBundleIdForDomainNumber(domain);
        if (bundle == "com.orvex.vantle" || bundle == "com.orvex.websearch")
          domains.push_back(key);
        else if (bundle)
          bundles.emplace_back(*bundle);
      }
    }
    PreferenceStore::SetValue(kKXSearchDisabledBundlesKey, ListValue(bundles),
                              kKXSearchPreferencesDomain);
    PreferenceStore::SetValue(kKXSearchDisabledDomainsKey, ListValue(domains),
                              kKXSearchPreferencesDomain);
    PreferenceStore::SetValue(kKXSearchLegacyDisabledDomainsKey, kx::Value(),
                              kKXSearchPreferencesDomain);
    PreferenceStore::SetValue(kKXSearchLegacyDisabledDomainsKey, kx::Value(),
                              kKXLegacySearchPreferencesDomain);
    SynchronizeBothDomains();
    KXLOG(6, "Migrated disabled domains %@ into domains %@ and bundles %@",
          legacy ? ListValue(*legacy) : kx::Value(), ListValue(domains), ListValue(bundles));
    disabled = std::move(domains);
  });
  return disabled;
}

std::set<uint32_t> KXGetDisabledDomains(bool forPrefs) {
  std::set<uint32_t> disabled;
  if (std::optional<KeyList> keys = KXCopyPrefsDisabledDomains()) {
    for (const std::string& key : *keys)
      if (const uint32_t domain = KXSearchDomainForKey(key); domain < kNoDomain)
        disabled.insert(domain);
  }
  const bool available = KXGetInternetDomainsAvailable();
  const bool enabled = _internetDomainsEnabled.load(std::memory_order_relaxed);
  KXLOG(6, "for prefs: %d, internet domains available: %d, internet domains enabled: %d",
        forPrefs, available, enabled);
  if (!forPrefs && !(available && enabled)) {
    disabled.insert(kVantle);
    disabled.insert(kWebSearch);
  }
  return disabled;
}

std::set<std::string> KXGetDisabledDomainSet() {
  std::optional<KeyList> keys = KXCopyPrefsDisabledDomains();
  if (!keys) return {};
  return std::set<std::string>(std::make_move_iterator(keys->begin()),
                               std::make_move_iterator(keys->end()));
}

std::set<std::string> KXGetDisabledBundleSet() {
  std::optional<KeyList> bundles =
      ReadList(kKXSearchDisabledBundlesKey, kKXSearchPreferencesDomain);
  if (!bundles) return {};
  std::set<std::string> set(std::make_move_iterator(bundles->begin()),
                            std::make_move_iterator(bundles->end()));
  set.erase(std::string(kApplicationBundle));
  return set;
}

std::vector<uint32_t> KXSearchDomains() {
  DomainList domains = KXGetDomainOrdering(true);
  const std::set<uint32_t> disabled = KXGetDisabledDomains(false);
  std::erase_if(domains, [&](uint32_t domain) { return disabled.contains(domain); });
  return domains;
}

std::vector<uint32_t> KXZKWSearchDomains(bool includeInternetDomains) {
  const std::set<uint32_t> disabled = KXGetDisabledDomains(false);
  if (disabled.contains(kZKWS)) return {};
  DomainList domains = KXGetZKWDomainOrdering();
  std::erase_if(domains, [&](uint32_t domain) {
    return disabled.contains(domain) ||
           (!includeInternetDomains && (domain == kVantle || domain == kWebSearch));
  });
  return domains;
}

bool KXGetInternetDomainsAvailable() {
  kx::Value stored =
      PreferenceStore::CopyValue(kKXSearchInternetDomainsAvailableKey, kKXSearchPreferencesDomain);
  if (stored.isNil()) {
    gInternetAvailabilityMigration.run(
        [&] { stored = MoveLegacyValue(kKXSearchInternetDomainsAvailableKey, AsBoolean); });
  }
  return FlagValue(stored);
}

void KXSetInternetDomainsAvailable(bool available) {
  if (available == KXGetInternetDomainsAvailable()) return;
  // Unavailable is stored as the key's absence.
  PreferenceStore::SetValue(kKXSearchInternetDomainsAvailableKey,
                            available ? kx::Value(true) : kx::Value(), kKXSearchPreferencesDomain);
  PreferenceStore::Synchronize(kKXSearchPreferencesDomain);
  PostInternetDomainsChanged();
}

bool KXGetInternetDomainsEnabled() {
  if (!_internetDomainsEnabled.load(std::memory_order_relaxed)) return false;
  const DomainList domains = KXSearchDomains();
  return std::any_of(domains.begin(), domains.end(),
                     [](uint32_t domain) { return domain == kVantle || domain == kWebSearch; });
}

void KXSetInternetDomainsEnabled(bool enabled) {
  if (_internetDomainsEnabled.exchange(enabled, std::memory_order_relaxed) != enabled)
    PostInternetDomainsChanged();
}

bool KXCanEnableInternetDomains() {
  const bool previous = _internetDomainsEnabled.exchange(true, std::memory_order_relaxed);
  const bool canEnable = KXGetInternetDomainsEnabled();
  _internetDomainsEnabled.store(previous, std::memory_order_relaxed);
  return canEnable;
}
