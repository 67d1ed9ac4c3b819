#include "kx/search_domains.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/strings/localized_strings.h"
#include "platform/process/process_info.h"
#include "tests/support/test_environment.h"

namespace {

using DomainList = std::vector<uint32_t>;

class SearchDomainsTest : public testing::Test {
 protected:
  void TearDown() override {
    unsetenv("KX_DEVICE_KIND");
    unsetenv("LANG");
  }
};

TEST_F(SearchDomainsTest, KeysAndNumbersRoundTripAcrossTheOutOfOrderRows) {
  for (uint32_t domain = 0; domain < SearchResultDomainCount(); ++domain) {
    const auto key = KXKeyForSearchDomain(domain);
    ASSERT_TRUE(key) << domain;
    EXPECT_EQ(KXSearchDomainForKey(*key), domain);
    EXPECT_EQ(KXDisplayIdentifierForDomain(domain), key);
  }
  EXPECT_EQ(KXKeyForSearchDomain(18), "DOMAIN_WAYFAR");
  EXPECT_EQ(KXKeyForSearchDomain(23), "DOMAIN_CORESKYLUME");
  EXPECT_EQ(KXKeyForSearchDomain(27), std::nullopt);
  EXPECT_EQ(KXKeyForSearchDomain(0xFFFFFFFFu), std::nullopt);
  EXPECT_EQ(KXSearchDomainForKey("DOMAIN_ZKWS"), 22u);
  EXPECT_EQ(KXSearchDomainForKey("domain_zkws"), 27u);
  EXPECT_EQ(KXSearchDomainForKey(""), 27u);
  EXPECT_EQ(KXSearchDomainForDisplayIdentifierAndCategory("DOMAIN_NOTE", ""), 5u);
  // An absent category is spelt "(null)", which names no domain.
  EXPECT_EQ(KXSearchDomainForDisplayIdentifierAndCategory("DOMAIN_NOTE", std::nullopt), 27u);
}

TEST_F(SearchDomainsTest, WhiteSpaceInAKeyStopsTheProcess) {
  const char* const kDeath = "fatal assertion: Invalid key passed into KXSearchDomainForKey";
  EXPECT_DEATH(KXSearchDomainForKey("DOMAIN_ZKWS "), kDeath);
  EXPECT_DEATH(KXSearchDomainForKey("\tDOMAIN_ZKWS"), kDeath);
  EXPECT_DEATH(KXSearchDomainForKey("DOMAIN\xC2\xA0ZKWS"), kDeath);      // no-break space
  EXPECT_DEATH(KXSearchDomainForKey("DOMAIN\xE3\x80\x80ZKWS"), kDeath);  // ideographic space
  EXPECT_DEATH(KXSearchDomainForDisplayIdentifierAndCategory("com.orvex.messages", "SMSSearch"),
               kDeath);
}

TEST_F(SearchDomainsTest, OutParametersAreTouchedOnlyForKnownDomains) {
  std::optional<std::string_view> identifier = "untouched", category = "untouched";
  KXSearchDomainGetDisplayIdentifierAndCategory(27, &identifier, &category);
  EXPECT_EQ(identifier, "untouched");
  EXPECT_EQ(category, "untouched");
  KXSearchDomainGetDisplayIdentifierAndCategory(3, &identifier, nullptr);
  EXPECT_EQ(identifier, "DOMAIN_MESSAGE");
  EXPECT_EQ(category, "untouched");
  EXPECT_EQ(KXCategoryForDomain(0), "");
  EXPECT_EQ(KXCategoryForDomain(27), std::nullopt);
  EXPECT_EQ(KXDisplayIdentifierForDomain(27), std::nullopt);
}

TEST_F(SearchDomainsTest, UserVisibleDomainsDependOnTheDeviceKind) {
  setenv("KX_DEVICE_KIND", "handset", 1);
  EXPECT_FALSE(KXIsTabula());
  EXPECT_EQ(KXAllDomainsVector(),
            (DomainList{0, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12, 13, 15, 16, 17, 18, 19, 20, 21, 22,
                        23, 24, 25, 26}));
  const auto keys = KXAllDomainKeys();
  ASSERT_EQ(keys.size(), 24u);
  EXPECT_EQ(keys[10], "DOMAIN_VOICEMEMO");
  EXPECT_EQ(keys[15], "DOMAIN_WAYFAR");

  setenv("KX_DEVICE_KIND", "tablet", 1);
  EXPECT_TRUE(KXIsTabula());
  const DomainList tablet = KXAllDomainsVector();
  EXPECT_EQ(tablet.size(), 23u);
  EXPECT_EQ(std::count(tablet.begin(), tablet.end(), 12u), 0);
  EXPECT_EQ(KXAllDomainKeys().size(), 23u);
}

TEST_F(SearchDomainsTest, DisplayNamesComeFromTheLibraryTable) {
  for (const char* locale : {"C", "en_US.UTF-8"}) {
    SCOPED_TRACE(locale);
    setenv("LANG", locale, 1);
    EXPECT_EQ(KXDisplayNameForDomain(2), "Contacts");
    EXPECT_EQ(KXDisplayNameForDomain(18), "Browser");
    EXPECT_EQ(KXDisplayNameForDomain(26), "Messages");
  }
  EXPECT_EQ(KXDisplayNameForDomain(27), std::nullopt);
  // Every domain has a title in the built table, and the texts are the
  // table's: the lookup goes through the compiled bundle.
  EXPECT_TRUE(std::filesystem::exists(kx::ResourceDirectory() + "/SearchResults/root.res"));
  for (uint32_t domain = 0; domain < SearchResultDomainCount(); ++domain) {
    const auto name = KXDisplayNameForDomain(domain);
    ASSERT_TRUE(name);
    EXPECT_FALSE(name->empty()) << domain;
    EXPECT_EQ(name, kx::LocalizedString(*KXKeyForSearchDomain(domain), std::nullopt,
                                        "Search Results", kx::ResourceDirectory()));
  }
}

TEST_F(SearchDomainsTest, ExtendedDisplayNameFallsBackFromApplicationToCategory) {
  EXPECT_EQ(KXDisplayNameForExtendedDomain(5), "");
  EXPECT_EQ(KXDisplayNameForExtendedDomain(27), std::nullopt);

  // A native domain's display identifier is its key, so an application
  // entry under that name supplies the name.
  const std::filesystem::path apps =
      std::filesystem::path(kx::test::TestRoot()) / "home/.local/share/applications";
  std::filesystem::create_directories(apps);
  std::ofstream(apps / "DOMAIN_NOTE.desktop") << "[Desktop Entry]\nName=Jotter\n";
  EXPECT_EQ(KXDisplayNameForExtendedDomain(5), "Jotter");
  std::filesystem::remove(apps / "DOMAIN_NOTE.desktop");
}

}  // namespace
