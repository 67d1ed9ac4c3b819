#include "platform/strings/localized_strings.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/process/process_info.h"

namespace kx {
namespace {

class LocalizedStringsTest : public testing::Test {
 protected:
  void TearDown() override {
    SetLocalizationLocale(std::nullopt);
    unsetenv("LC_ALL");
    unsetenv("LC_MESSAGES");
    unsetenv("LANG");
  }
};

TEST_F(LocalizedStringsTest, TableKeysEscapePercentAndVariantCharacters) {
  EXPECT_EQ(EncodeTableKey("DOMAIN_NOTE"), "DOMAIN_NOTE");
  EXPECT_EQ(EncodeTableKey("A-%@-%@"), "A-%25%40-%25%40");
  EXPECT_EQ(EncodeTableKey("a b\xC3\xA9"), "a b%C3%A9");
}

TEST_F(LocalizedStringsTest, POSIXNamesMapToICULocales) {
  EXPECT_EQ(ICULocaleForPOSIXLocale("de_DE.UTF-8@euro"), "de_DE");
  EXPECT_EQ(ICULocaleForPOSIXLocale("en_GB"), "en_GB");
  EXPECT_EQ(ICULocaleForPOSIXLocale("C.UTF-8"), "root");
  EXPECT_EQ(ICULocaleForPOSIXLocale("POSIX"), "root");
  EXPECT_EQ(ICULocaleForPOSIXLocale(""), "root");
}

TEST_F(LocalizedStringsTest, LocaleFollowsEnvironmentPrecedenceUnlessSet) {
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  unsetenv("LANG");
  EXPECT_EQ(LocalizationLocaleName(), "C");
  setenv("LANG", "fr_FR.UTF-8", 1);
  setenv("LC_MESSAGES", "de_DE.UTF-8", 1);
  EXPECT_EQ(LocalizationLocaleName(), "de_DE.UTF-8");
  setenv("LC_ALL", "", 1);  // empty means unset
  EXPECT_EQ(LocalizationLocaleName(), "de_DE.UTF-8");
  setenv("LC_ALL", "it_IT", 1);
  EXPECT_EQ(LocalizationLocaleName(), "it_IT");
  SetLocalizationLocale("pt_BR");
  EXPECT_EQ(LocalizationLocaleName(), "pt_BR");
}

TEST_F(LocalizedStringsTest, BuiltTablesAnswerInCAndEnglishLocales) {
  for (const char* locale : {"C", "en_US.UTF-8", "en_GB", "zz_ZZ"}) {
    SCOPED_TRACE(locale);
    setenv("LANG", locale, 1);
    EXPECT_EQ(LibraryLocalizedString("DOMAIN_MESSAGE", "Search Results"), "Mail");
    EXPECT_EQ(LibraryLocalizedString("TODAY", "Search"), "Today");
    // The key holds characters genrb cannot take verbatim.
    EXPECT_EQ(LibraryLocalizedString("TODAY_TOMORROW_YESTERDAY_DATE_FORMAT-%@-%@", "Search"),
              "%@, %@");
  }
}

TEST_F(LocalizedStringsTest, MissingKeysTablesAndBundlesYieldTheDefault) {
  const std::string bundle = ResourceDirectory();
  EXPECT_EQ(LocalizedString("NO_SUCH_KEY", "fallback", "Search", bundle), "fallback");
  EXPECT_EQ(LocalizedString("NO_SUCH_KEY", std::nullopt, "Search", bundle), std::nullopt);
  EXPECT_EQ(LocalizedString("", std::nullopt, "Search", bundle), std::nullopt);
  // Keys of one table are not found in another.
  EXPECT_EQ(LocalizedString("DOMAIN_NOTE", "", "Search", bundle), "");
  EXPECT_EQ(LocalizedString("TODAY", "x", "No Such Table", bundle), "x");
  EXPECT_EQ(LocalizedString("TODAY", "x", "Search", "/nonexistent/bundle"), "x");
}

}  // namespace
}  // namespace kx
