#include "kx/search_domains.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <array>

#include "kx/assert.h"
#include "kx/log.h"
#include "platform/process/device_kind.h"
#include "platform/files/home_screen.h"
#include "platform/strings/localized_strings.h"
#include "platform/process/process_info.h"

namespace {

constexpr uint32_t kDomainCount = 27;

struct DomainKeyRow {
  std::string_view key;
  uint32_t domain;
};

// Row order is part of the contract: lookups scan from row 0 and the
// display-identifier fast path indexes rows by domain number. From row 18 on
// row and domain differ, because the table grew out of numeric order; only
// rows 0-17, 21 and 26 hold the domain of their own index.
constexpr std::array<DomainKeyRow, kDomainCount> KXNativeSearchDomainToKeyMapping{{
    {"DOMAIN_TOPHITS", 0},
    {"DOMAIN_OTHER", 1},
    {"DOMAIN_PERSON", 2},
    {"DOMAIN_MESSAGE", 3},
    {"DOMAIN_APPLICATION", 4},
    {"DOMAIN_NOTE", 5},
    {"DOMAIN_MUSIC", 6},
    {"DOMAIN_PODCAST", 7},
    {"DOMAIN_VIDEO", 8},
    {"DOMAIN_AUDIOBOOK", 9},
    {"DOMAIN_EVENT", 10},
    {"DOMAIN_BOOKMARK", 11},
    {"DOMAIN_VOICEMEMO", 12},
    {"DOMAIN_REMINDER", 13},
    {"DOMAIN_DOCUMENT", 14},
    {"DOMAIN_CLOUD_DOCUMENT", 15},
    {"DOMAIN_VANTLE", 16},
    {"DOMAIN_WEBSEARCH", 17},
    {"DOMAIN_SETTINGS", 19},
    {"DOMAIN_PSEUDOCONTACT", 20},
    {"DOMAIN_CORESKYLUME", 23},
    {"DOMAIN_MAPCATEGORY", 21},
    {"DOMAIN_CALCULATION", 24},
    {"DOMAIN_CONVERSION", 25},
    {"DOMAIN_WAYFAR", 18},
    {"DOMAIN_ZKWS", 22},
    {"DOMAIN_CHATTER", 26},
}};

// Domains below 15 that are never user-visible: 1 (other), 11 (bookmarks)
// and 14 (documents).
constexpr uint32_t kHiddenDomainMask = 0x4802;
constexpr uint32_t kVoiceMemoDomain = 12;

const DomainKeyRow* RowForDomain(uint32_t domain) {
  if (domain >= kDomainCount) return nullptr;
  if (KXNativeSearchDomainToKeyMapping[domain].domain == domain)
    return &KXNativeSearchDomainToKeyMapping[domain];
  for (const DomainKeyRow& row : KXNativeSearchDomainToKeyMapping)
    if (row.domain == domain) return &row;
  return nullptr;
}

// Any White_Space code point, not only ASCII blanks: a no-break space in a
// key is as wrong as a blank. Malformed UTF-8 is not white space.
bool ContainsWhiteSpace(std::string_view text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const int32_t length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c >= 0 && u_isUWhiteSpace(c)) return true;
  }
  return false;
}

bool IsUserVisible(uint32_t domain) {
  if (domain < 15 && ((kHiddenDomainMask >> domain) & 1)) return false;
  return !(domain == kVoiceMemoDomain && KXIsTabula());
}

}  // namespace

uint64_t SearchResultDomainCount() { return kDomainCount; }

bool KXIsTabula() { return kx::CurrentDeviceKind() == kx::DeviceKind::Tablet; }

kx::Array KXGetExtendedDomains() { return {}; }

void KXSetExtendedDomains(const kx::Array&) {}

std::optional<std::string_view> KXKeyForSearchDomain(uint32_t domain) {
  if (domain >= kDomainCount) return std::nullopt;
  for (const DomainKeyRow& row : KXNativeSearchDomainToKeyMapping)
    if (row.domain == domain) return row.key;
  return std::nullopt;
}

uint32_t KXSearchDomainForKey(std::string_view key) {
  if (ContainsWhiteSpace(key)) {
    KXLOG(2, "Invalid key passed into KXSearchDomainForKey: %@", key);
    KX_ASSERT_FATAL(false, "Invalid key passed into KXSearchDomainForKey");
  }
  for (const DomainKeyRow& row : KXNativeSearchDomainToKeyMapping)
    if (row.key == key) return row.domain;
  return kDomainCount;
}

uint32_t KXSearchDomainForDisplayIdentifierAndCategory(
    std::optional<std::string_view> displayIdentifier, std::optional<std::string_view> category) {
  // The composite is formed even though a separator makes it an invalid
  // key: callers must only ever pass an empty category.
  constexpr std::string_view kAbsent = "(null)";
  std::string composite(displayIdentifier.value_or(kAbsent));
  if (category && !category->empty()) composite += ' ';
  composite += category.value_or(kAbsent);
  return KXSearchDomainForKey(composite);
}

void KXSearchDomainGetDisplayIdentifierAndCategory(
    uint32_t domain, std::optional<std::string_view>* displayIdentifier,
    std::optional<std::string_view>* category) {
  const DomainKeyRow* row = RowForDomain(domain);
  if (!row) return;
  if (displayIdentifier) *displayIdentifier = row->key;
  if (category) *category = std::string_view();
}

std::optional<std::string_view> KXDisplayIdentifierForDomain(uint32_t domain) {
  std::optional<std::string_view> identifier;
  KXSearchDomainGetDisplayIdentifierAndCategory(domain, &identifier, nullptr);
  return identifier;
}

std::optional<std::string_view> KXCategoryForDomain(uint32_t domain) {
  std::optional<std::string_view> category;
  KXSearchDomainGetDisplayIdentifierAndCategory(domain, nullptr, &category);
  return category;
}

std::optional<std::string> KXDisplayNameForDomain(uint32_t domain) {
  const std::optional<std::string_view> key = KXKeyForSearchDomain(domain);
  if (!key) return std::nullopt;
  return kx::LibraryLocalizedString(*key, "Search Results");
}

std::optional<std::string> KXDisplayNameForExtendedDomain(uint32_t domain) {
  std::optional<std::string_view> displayIdentifier, category;
  KXSearchDomainGetDisplayIdentifierAndCategory(domain, &displayIdentifier, &category);
  // Both are set for a native domain and neither beyond 26.
  if (!displayIdentifier || !category) return std::nullopt;
  if (std::optional<std::string> bundle = kx::ApplicationBundlePath(*displayIdentifier)) {
    if (std::optional<std::string> name =
            kx::LocalizedString(*category, std::nullopt, "Localizable", *bundle))
      return name;
  }
  if (std::optional<std::string> name = kx::ApplicationLocalizedName(*displayIdentifier))
    return name;
  return std::string(*category);
}

std::vector<std::string_view> KXAllDomainKeys() {
  std::vector<std::string_view> keys;
  keys.reserve(kDomainCount);
  for (uint32_t domain = 0; domain < kDomainCount; ++domain)
    if (IsUserVisible(domain)) keys.push_back(*KXKeyForSearchDomain(domain));
  return keys;
}

std::vector<uint32_t> KXAllDomainsVector() {
  std::vector<uint32_t> domains;
  domains.reserve(kDomainCount);
  for (uint32_t domain = 0; domain < kDomainCount; ++domain)
    if (IsUserVisible(domain)) domains.push_back(domain);
  return domains;
}
