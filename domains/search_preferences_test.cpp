#include "kx/search_preferences.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "domains/search_preferences_internal.h"
#include "platform/notify/notify.h"
#include "platform/prefs/preferences.h"
#include "base/property_list.h"
#include "kx/log.h"
#include "support/log_file.h"
#include "tests/support/test_environment.h"

namespace {

using kx::PreferenceStore;
using kx::Value;
using DomainList = std::vector<uint32_t>;
using KeyList = std::vector<std::string>;

constexpr const char* kCurrent = kKXSearchPreferencesDomain;
constexpr const char* kLegacy = kKXLegacySearchPreferencesDomain;

Value List(std::initializer_list<const char*> entries) {
  kx::Array array;
  for (const char* entry : entries) array.emplace_back(entry);
  return Value(std::move(array));
}

void Store(const char* key, const Value& value, const char* domain) {
  PreferenceStore::SetValue(key, value, domain);
  ASSERT_TRUE(PreferenceStore::Synchronize(domain));
}

// The domain as its file on disk holds it, bypassing the store's caches.
kx::Dictionary FileContents(const char* domain) {
  std::ifstream in(PreferenceStore::PathForDomain(domain), std::ios::binary);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
  if (bytes.empty()) return {};
  const kx::PropertyListResult decoded = kx::DecodeBinaryPropertyList(bytes);
  return decoded.value.dictionary() ? *decoded.value.dictionary() : kx::Dictionary();
}

class SearchPreferencesTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("KX_DEVICE_KIND", "handset", 1);
    kx::ResetSearchPreferencesProcessState();
    for (const char* domain : {kCurrent, kLegacy}) {
      for (const char* key : {kKXSearchResultOrderingKey, kKXSearchDisabledDomainsKey,
                              kKXSearchDisabledBundlesKey, kKXSearchLegacyDisabledDomainsKey,
                              kKXSearchInternetDomainsAvailableKey})
        PreferenceStore::SetValue(key, Value(), domain);
      PreferenceStore::Synchronize(domain);
    }
  }
  void TearDown() override { unsetenv("KX_DEVICE_KIND"); }
};

TEST_F(SearchPreferencesTest, DefaultOrderingSlotsMissingDomainsBeforeItsLastEntry) {
  EXPECT_TRUE(KXDomainOrderingIsTransient());
  const DomainList expected{0,  4,  16, 2,  20, 6,  7,  8,  9,  5, 10,
                            24, 25, 26, 17, 3,  12, 13, 18, 22, 23};
  EXPECT_EQ(KXGetDomainOrdering(true), expected);
  EXPECT_EQ(KXGetDomainOrdering(false).front(), 4u);
}

TEST_F(SearchPreferencesTest, StoredOrderingsGainServerSuggestionsAndKeepTheirEnd) {
  Store(kKXSearchResultOrderingKey, List({"DOMAIN_PERSON"}), kCurrent);
  EXPECT_FALSE(KXDomainOrderingIsTransient());
  EXPECT_EQ(KXGetDomainOrdering(false),
            (DomainList{16, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12, 13, 18, 20, 22, 23, 24, 25, 26, 17}));

  Store(kKXSearchResultOrderingKey, List({"DOMAIN_APPLICATION", "DOMAIN_NOTE"}), kCurrent);
  const DomainList applicationsFirst = KXGetDomainOrdering(true);
  EXPECT_EQ(DomainList(applicationsFirst.begin(), applicationsFirst.begin() + 4),
            (DomainList{0, 4, 16, 5}));
  EXPECT_EQ(applicationsFirst.back(), 17u);

  // Web search placed by the user: the user's last entry stays last. The
  // legacy composite entry becomes DOMAIN_CHATTER in place; unknown keys,
  // settings and map categories drop out.
  Store(kKXSearchResultOrderingKey,
        List({"DOMAIN_WEBSEARCH", "com.orvex.messages SMSSearch", "NO_SUCH_DOMAIN",
              "DOMAIN_SETTINGS", "DOMAIN_VANTLE", "DOMAIN_MAPCATEGORY", "DOMAIN_MUSIC"}),
        kCurrent);
  EXPECT_EQ(KXCopyPrefsDomains(),
            (KeyList{"DOMAIN_WEBSEARCH", "DOMAIN_CHATTER", "NO_SUCH_DOMAIN", "DOMAIN_SETTINGS",
                     "DOMAIN_VANTLE", "DOMAIN_MAPCATEGORY", "DOMAIN_MUSIC"}));
  EXPECT_EQ(KXGetDomainOrdering(false),
            (DomainList{17, 26, 16, 2, 3, 4, 5, 7, 8, 9, 10, 12, 13, 18, 20, 22, 23, 24, 25, 6}));
}

TEST_F(SearchPreferencesTest, OrderingMovesFromTheLegacyDomainOncePerProcess) {
  Store(kKXSearchResultOrderingKey, List({"com.orvex.messages SMSSearch", "DOMAIN_NOTE"}),
        kLegacy);
  EXPECT_EQ(KXCopyPrefsDomains(), (KeyList{"DOMAIN_CHATTER", "DOMAIN_NOTE"}));
  EXPECT_EQ(FileContents(kCurrent)[kKXSearchResultOrderingKey],
            List({"com.orvex.messages SMSSearch", "DOMAIN_NOTE"}));
  EXPECT_FALSE(FileContents(kLegacy).contains(kKXSearchResultOrderingKey));

  // Once moved, the legacy domain is not consulted again in this process.
  Store(kKXSearchResultOrderingKey, Value(), kCurrent);
  Store(kKXSearchResultOrderingKey, List({"DOMAIN_PERSON"}), kLegacy);
  EXPECT_EQ(KXCopyPrefsDomains(), std::nullopt);
  EXPECT_TRUE(KXDomainOrderingIsTransient());
  EXPECT_EQ(FileContents(kLegacy)[kKXSearchResultOrderingKey], List({"DOMAIN_PERSON"}));
}

TEST_F(SearchPreferencesTest, LegacyDisabledListSplitsIntoDomainsAndBundles) {
  // The list in the current domain wins; the legacy domain's copy is
  // deleted all the same.
  Store(kKXSearchLegacyDisabledDomainsKey, List({"DOMAIN_MUSIC"}), kLegacy);
  Store(kKXSearchLegacyDisabledDomainsKey,
        List({"DOMAIN_VANTLE", "DOMAIN_PERSON", "com.orvex.messages SMSSearch", "DOMAIN_TOPHITS",
              "DOMAIN_ZKWS", "DOMAIN_WEBSEARCH", "NO_SUCH_DOMAIN", "DOMAIN_APPLICATION"}),
        kCurrent);

  EXPECT_EQ(KXCopyPrefsDisabledDomains(), (KeyList{"DOMAIN_VANTLE", "DOMAIN_WEBSEARCH"}));
  const kx::Dictionary current = FileContents(kCurrent);
  EXPECT_EQ(current.at(kKXSearchDisabledDomainsKey), List({"DOMAIN_VANTLE", "DOMAIN_WEBSEARCH"}));
  EXPECT_EQ(current.at(kKXSearchDisabledBundlesKey),
            List({"com.orvex.contacts", "com.orvex.messages", "com.orvex.application"}));
  EXPECT_FALSE(current.contains(kKXSearchLegacyDisabledDomainsKey));
  EXPECT_FALSE(FileContents(kLegacy).contains(kKXSearchLegacyDisabledDomainsKey));
  // Applications can never be disabled by bundle.
  EXPECT_EQ(KXGetDisabledBundleSet(),
            (std::set<std::string>{"com.orvex.contacts", "com.orvex.messages"}));
  EXPECT_EQ(KXGetDisabledDomainSet(), (std::set<std::string>{"DOMAIN_VANTLE", "DOMAIN_WEBSEARCH"}));

  Store(kKXSearchDisabledDomainsKey, Value(), kCurrent);
  EXPECT_EQ(KXCopyPrefsDisabledDomains(), std::nullopt);
}

TEST_F(SearchPreferencesTest, DisabledListMigratesFromLegacyDomainEvenWhenEmpty) {
  Store(kKXSearchDisabledBundlesKey, List({"com.example.kept"}), kCurrent);
  EXPECT_EQ(KXCopyPrefsDisabledDomains(), KeyList{});
  // The migration writes both new lists, replacing older bundle choices.
  EXPECT_EQ(FileContents(kCurrent).at(kKXSearchDisabledBundlesKey), List({}));

  kx::ResetSearchPreferencesProcessState();
  Store(kKXSearchDisabledDomainsKey, Value(), kCurrent);
  Store(kKXSearchLegacyDisabledDomainsKey, List({"DOMAIN_NOTE"}), kLegacy);
  EXPECT_EQ(KXCopyPrefsDisabledDomains(), KeyList{});
  EXPECT_EQ(KXGetDisabledBundleSet(), (std::set<std::string>{"com.orvex.notes"}));
}

TEST_F(SearchPreferencesTest, InternetAvailabilityMovesOnceAndGatesInternetDomains) {
  Store(kKXSearchInternetDomainsAvailableKey, Value(true), kLegacy);
  EXPECT_TRUE(KXGetInternetDomainsAvailable());
  EXPECT_EQ(FileContents(kCurrent)[kKXSearchInternetDomainsAvailableKey], Value(true));
  EXPECT_FALSE(FileContents(kLegacy).contains(kKXSearchInternetDomainsAvailableKey));

  DomainList domains = KXSearchDomains();
  EXPECT_NE(std::find(domains.begin(), domains.end(), 16u), domains.end());
  EXPECT_TRUE(KXGetInternetDomainsEnabled());

  KXSetInternetDomainsEnabled(false);
  EXPECT_FALSE(KXGetInternetDomainsEnabled());
  EXPECT_TRUE(KXGetDisabledDomains(false).contains(17));
  EXPECT_FALSE(KXGetDisabledDomains(true).contains(17));
  EXPECT_TRUE(KXCanEnableInternetDomains());
  EXPECT_FALSE(KXGetInternetDomainsEnabled());  // asking changed nothing
  KXSetInternetDomainsEnabled(true);

  // Unavailable is stored as the key's absence.
  KXSetInternetDomainsAvailable(false);
  EXPECT_FALSE(FileContents(kCurrent).contains(kKXSearchInternetDomainsAvailableKey));
  domains = KXSearchDomains();
  EXPECT_EQ(std::find(domains.begin(), domains.end(), 16u), domains.end());
  EXPECT_EQ(std::find(domains.begin(), domains.end(), 17u), domains.end());
  EXPECT_FALSE(KXGetInternetDomainsEnabled());
  EXPECT_FALSE(KXCanEnableInternetDomains());

  // A second legacy value is not moved in the same process.
  Store(kKXSearchInternetDomainsAvailableKey, Value(true), kLegacy);
  EXPECT_FALSE(KXGetInternetDomainsAvailable());
}

TEST_F(SearchPreferencesTest, ChangesOfInternetDomainsArePostedSystemWide) {
  const auto generation = [] {
    return kx::notify::Generation(kKXSearchInternetDomainsChangedNotification);
  };
  const uint64_t start = generation();
  KXSetInternetDomainsAvailable(false);  // unchanged
  KXSetInternetDomainsEnabled(true);     // unchanged
  EXPECT_EQ(generation(), start);
  KXSetInternetDomainsAvailable(true);
  EXPECT_EQ(generation(), start + 1);
  KXSetInternetDomainsEnabled(false);
  EXPECT_EQ(generation(), start + 2);
  KXCanEnableInternetDomains();  // a question, not a change
  KXSetInternetDomainsEnabled(false);
  EXPECT_EQ(generation(), start + 2);
  KXSetInternetDomainsAvailable(false);
  EXPECT_EQ(generation(), start + 3);
}

// Lines of this process's log that contain `text`.
size_t LoggedLines(const std::string& text) {
  std::ifstream in(kx::logFilePathWithNumber(kx::LogDirectoryPath(), 0), std::ios::binary);
  size_t n = 0;
  for (std::string line; std::getline(in, line);) n += line.find(text) != std::string::npos;
  return n;
}

TEST_F(SearchPreferencesTest, AnUnusableNotificationDirectoryKeepsTheChangeAndOnlyLogs) {
  setKXLogLevel(7);
  // A regular file stands where the directory would have to be made.
  const std::string blocker = kx::test::TestRoot() + "/not-a-directory";
  std::ofstream(blocker) << "x";
  setenv("KX_NOTIFY_DIR", (blocker + "/kx-notify").c_str(), 1);
  const char* kLine = "Cannot use the notification directory";
  const size_t before = LoggedLines(kLine);

  EXPECT_NO_THROW(KXSetInternetDomainsAvailable(true));
  EXPECT_TRUE(KXGetInternetDomainsAvailable());
  EXPECT_EQ(FileContents(kCurrent)[kKXSearchInternetDomainsAvailableKey], Value(true));
  EXPECT_EQ(LoggedLines(kLine), before + 1);
  EXPECT_FALSE(kx::notify::Post(kKXSearchInternetDomainsChangedNotification));
  EXPECT_EQ(kx::notify::Generation(kKXSearchInternetDomainsChangedNotification), 0u);
}

TEST_F(SearchPreferencesTest, UserDisabledDomainsLeaveSearchAndZeroKeywordLists) {
  Store(kKXSearchInternetDomainsAvailableKey, Value(true), kCurrent);
  EXPECT_EQ(KXZKWSearchDomains(false), (DomainList{22, 2, 4, 23, 21}));
  EXPECT_EQ(KXZKWSearchDomains(true), (DomainList{22, 2, 4, 23, 21, 16}));

  Store(kKXSearchDisabledDomainsKey, List({"DOMAIN_VANTLE", "DOMAIN_PERSON"}), kCurrent);
  EXPECT_EQ(KXZKWSearchDomains(true), (DomainList{22, 4, 23, 21}));
  const DomainList search = KXSearchDomains();
  EXPECT_EQ(std::find(search.begin(), search.end(), 2u), search.end());
  EXPECT_NE(std::find(search.begin(), search.end(), 17u), search.end());
  EXPECT_EQ(search.front(), 0u);

  Store(kKXSearchDisabledDomainsKey, List({"DOMAIN_ZKWS"}), kCurrent);
  EXPECT_TRUE(KXZKWSearchDomains(true).empty());
}

TEST_F(SearchPreferencesTest, MalformedStoredValuesAreIgnored) {
  Store(kKXSearchResultOrderingKey, Value("DOMAIN_PERSON"), kCurrent);
  EXPECT_EQ(KXGetDomainOrdering(true).size(), 21u);
  kx::Array mixed{Value("DOMAIN_MUSIC"), Value(5), Value("DOMAIN_NOTE")};
  Store(kKXSearchResultOrderingKey, Value(std::move(mixed)), kCurrent);
  EXPECT_EQ(KXCopyPrefsDomains(), (KeyList{"DOMAIN_MUSIC", "DOMAIN_NOTE"}));
  Store(kKXSearchInternetDomainsAvailableKey, Value("yes"), kCurrent);
  EXPECT_FALSE(KXGetInternetDomainsAvailable());
}

}  // namespace
