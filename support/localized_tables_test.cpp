// The library's own string tables: every key of the English root has a
// German and a French text of its own, and lookups in those locales find it.
#include <gtest/gtest.h>
#include <unicode/ures.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "platform/process/process_info.h"
#include "platform/strings/localized_strings.h"

namespace kx {
namespace {

using Texts = std::map<std::string, std::string>;

// The keys and texts one locale's file defines itself, without fallback,
// with keys decoded from their table spelling ("%25%40" is "%@").
Texts TextsDefinedBy(const std::string& table, const char* locale) {
  const std::string directory = ResourceDirectory() + "/" + table + "/";
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UResourceBundle, decltype(&ures_close)> bundle(
      ures_openDirect(directory.c_str(), locale, &status), ures_close);
  EXPECT_TRUE(U_SUCCESS(status)) << directory << locale << u_errorName(status);
  Texts texts;
  if (U_FAILURE(status)) return texts;
  ures_resetIterator(bundle.get());
  while (ures_hasNext(bundle.get())) {
    const char* key = nullptr;
    int32_t length = 0;
    const UChar* text = ures_getNextString(bundle.get(), &length, &key, &status);
    if (U_FAILURE(status)) break;
    std::string decoded;
    for (const char* p = key; *p; ++p) {
      if (p[0] == '%' && p[1] && p[2]) {
        decoded += static_cast<char>(std::stoi(std::string(p + 1, 2), nullptr, 16));
        p += 2;
      } else {
        decoded += *p;
      }
    }
    icu::UnicodeString(text, length).toUTF8String(texts[decoded]);
  }
  return texts;
}

TEST(LocalizedTablesTest, GermanAndFrenchTranslateEveryKeyAndLookupsFindThem) {
  const struct {
    const char* directory;
    const char* table;
  } tables[] = {{"Search", "Search"}, {"SearchResults", "Search Results"}};
  const struct {
    const char* posix;
    const char* file;
  } locales[] = {{"C", "root"}, {"de_DE.UTF-8", "de"}, {"fr_FR.UTF-8", "fr"}};

  for (const auto& table : tables) {
    const Texts english = TextsDefinedBy(table.directory, "root");
    ASSERT_GE(english.size(), 6u);
    for (const auto& locale : locales) {
      SCOPED_TRACE(std::string(table.table) + " " + locale.posix);
      const Texts own = TextsDefinedBy(table.directory, locale.file);
      setenv("LC_ALL", locale.posix, 1);
      for (const auto& [key, englishText] : english) {
        SCOPED_TRACE(key);
        auto it = own.find(key);
        ASSERT_NE(it, own.end()) << "untranslated";
        EXPECT_FALSE(it->second.empty());
        EXPECT_EQ(LibraryLocalizedString(key, table.table), it->second);
      }
      EXPECT_EQ(own.size(), english.size()) << "keys the English table lacks";
    }
  }
}

TEST(LocalizedTablesTest, TranslationsKeepPlaceholdersAndTheLink) {
  for (const char* locale : {"C", "de_DE.UTF-8", "fr_FR.UTF-8"}) {
    SCOPED_TRACE(locale);
    setenv("LC_ALL", locale, 1);
    const std::string format =
        LibraryLocalizedString("TODAY_TOMORROW_YESTERDAY_DATE_FORMAT-%@-%@", "Search");
    const size_t first = format.find("%@");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(format.find("%@", first + 2), std::string::npos);
    EXPECT_NE(LibraryLocalizedString("PRIVACY_TEXT", "Search").find("https://"),
              std::string::npos);
  }
  setenv("LC_ALL", "de_DE.UTF-8", 1);
  EXPECT_EQ(LibraryLocalizedString("DOMAIN_PERSON", "Search Results"), "Kontakte");
  setenv("LC_ALL", "fr_FR.UTF-8", 1);
  EXPECT_EQ(LibraryLocalizedString("TOMORROW", "Search"), "Demain");
}

}  // namespace
}  // namespace kx
