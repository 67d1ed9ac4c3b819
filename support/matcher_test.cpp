#include "kx/KXMatcher.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/ascii_word_breaker.h"

namespace {

std::u16string UTF16(const std::string& utf8) {
  const icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
  return std::u16string(text.getBuffer(), text.length());
}

std::shared_ptr<KXMatcher> Matcher(const std::string& search, uint64_t options = 0,
                                   const char* locale = "en_US") {
  return KXMatcher::initWithSearchString(search, locale, options);
}

TEST(MatcherTest, EveryWordMustPrefixSomeCandidateWordAndTheMaskSaysWhich) {
  auto matcher = Matcher("jo smi");
  ASSERT_EQ(matcher->wordCount(), 2u);
  uint64_t mask = ~uint64_t{0};
  EXPECT_TRUE(matcher->matches("John Smith", &mask));
  EXPECT_EQ(mask, 0b11u);
  EXPECT_TRUE(matcher->matches("Smith, John"));
  EXPECT_FALSE(matcher->matches("Joanna Jones", &mask));
  EXPECT_EQ(mask, 0b01u);
  EXPECT_FALSE(matcher->matches("Blacksmith Joe", &mask));  // "smi" inside a word
  EXPECT_EQ(mask, 0b01u);
  EXPECT_TRUE(matcher->matches("l'Smith d\u2019Jones"));  // after an elided article
  EXPECT_FALSE(matcher->matchesUTF8String("", &mask));
  EXPECT_EQ(mask, 0u);

  auto none = Matcher("  ,;!  ");
  EXPECT_EQ(none->wordCount(), 0u);
  EXPECT_FALSE(none->matches("anything"));
  EXPECT_EQ(Matcher("  hello, wörld! 3.5 ")->wordCount(), 3u);
}

TEST(MatcherTest, FoldsCaseAndDiacriticsOfLatinGreekAndCyrillicOnly) {
  EXPECT_TRUE(Matcher("e")->matches("Émile Zola"));
  EXPECT_TRUE(Matcher("ÉMI")->matches("emile"));
  EXPECT_TRUE(Matcher("cafe")->matches(u"CAFE\u0301 noir"));  // decomposed accent
  EXPECT_TRUE(Matcher("ﬁnal")->matches("FINALE"));           // ligature
  EXPECT_TRUE(Matcher("елк")->matches("Ёлка"));
  EXPECT_TRUE(Matcher("strasse")->matches("Straßenbahn"));
  EXPECT_TRUE(Matcher("STRAẞE")->matchesUTF8String("strasse"));
  EXPECT_TRUE(Matcher("αθην")->matches("Αθήνα"));
  EXPECT_FALSE(Matcher("か")->matches("がっこう"));  // voicing changes the kana
  EXPECT_FALSE(Matcher("e", KXMatcherOptionDiacriticSensitive)->matches("émile"));
  EXPECT_TRUE(Matcher("é", KXMatcherOptionDiacriticSensitive)->matches("Émile"));
  EXPECT_FALSE(Matcher("Em", KXMatcherOptionCaseSensitive)->matches("emile"));
  EXPECT_TRUE(Matcher("é", KXMatcherOptionCaseSensitive)->matches("émile"));
}

TEST(MatcherTest, OptionBitsChangeWhatCounts) {
  auto complete = Matcher("john sm", KXMatcherOptionCompleteWords);
  EXPECT_FALSE(complete->matches("Johnny Smith"));
  EXPECT_TRUE(complete->matches("John Smithers"));
  auto anywhere = Matcher("bla mit", KXMatcherOptionLastWordAnywhere);
  EXPECT_TRUE(anywhere->matches("Blacksmith"));
  EXPECT_FALSE(anywhere->matches("mitbla"));  // only the last word may float
  uint64_t mask = 0;
  EXPECT_TRUE(Matcher("zz smi", KXMatcherOptionAnyWord)->matches("John Smith", &mask));
  EXPECT_EQ(mask, 0b10u);
  EXPECT_FALSE(Matcher("zz yy", KXMatcherOptionAnyWord)->matches("John Smith"));
}

TEST(MatcherTest, MaskReportsTheFirst64WordsAndAllWordsStayRequired) {
  std::string search, candidate;
  for (int i = 0; i < 70; ++i) search += "w" + std::to_string(i) + " ";
  candidate = search;
  auto matcher = Matcher(search);
  EXPECT_EQ(matcher->wordCount(), 70u);
  uint64_t mask = 0;
  EXPECT_TRUE(matcher->matches(candidate, &mask));
  EXPECT_EQ(mask, ~uint64_t{0});
  candidate.replace(candidate.find("w69"), 3, "v69");
  EXPECT_FALSE(matcher->matches(candidate, &mask));
  EXPECT_EQ(mask, ~uint64_t{0});
}

TEST(MatcherTest, ThaiAndJapaneseAreSplitIntoWordsByDictionary) {
  const std::string thai = "ภาษาไทยง่ายนิดเดียว";
  EXPECT_EQ(Matcher("ภาษาไทยง่าย", 0, "th")->wordCount(), 3u);
  EXPECT_TRUE(Matcher("ไทย ง่าย", 0, "th")->matches(thai));
  EXPECT_FALSE(Matcher("ไทยง", 0, "th")->matches(thai));
  const std::string japanese = "東京都の天気は晴れです";
  EXPECT_TRUE(Matcher("天気 晴", 0, "ja")->matches(japanese));
  EXPECT_TRUE(Matcher("天気", 0, "ja")->matches(UTF16(japanese)));
  EXPECT_FALSE(Matcher("気", 0, "ja")->matches(japanese));
}

// The ASCII path breaks and folds in the bytes; the UTF-16 path goes through
// ICU. They must agree, including where the locale's rules differ (':'
// joins letters in Swedish).
TEST(MatcherTest, ASCIIAndUnicodePathsAgreeOnRandomText) {
  // The fast path exists for these locales; otherwise the comparison below
  // would compare ICU with itself.
  for (const char* locale : {"en_US", "sv_SE", "en_US_POSIX", "de"})
    ASSERT_NE(kx::ASCIIWordBreaker::ForLocale(icu::Locale(locale)), nullptr) << locale;
  std::mt19937 random(20261123);
  const std::string alphabet = "aAbBeE01 2 .',;:_@-x\"";
  auto randomText = [&](size_t maxLength) {
    std::string text;
    for (size_t n = random() % (maxLength + 1); n > 0; --n)
      text += alphabet[random() % alphabet.size()];
    return text;
  };
  const uint64_t optionSets[] = {0, KXMatcherOptionCompleteWords, KXMatcherOptionLastWordAnywhere,
                                 KXMatcherOptionAnyWord | KXMatcherOptionCaseSensitive};
  int matched = 0;
  for (const char* locale : {"en_US", "sv_SE", "en_US_POSIX", "de"}) {
    for (int round = 0; round < 300; ++round) {
      const std::string search = (round % 7 == 0 ? "é" : "") + randomText(6);
      auto matcher = Matcher(search, optionSets[round % 4], locale);
      for (int i = 0; i < 20; ++i) {
        const std::string candidate = randomText(30);
        SCOPED_TRACE(std::string(locale) + " [" + search + "] [" + candidate + "]");
        uint64_t asciiMask = 0, unicodeMask = 0;
        const bool ascii = matcher->matchesUTF8String(candidate.c_str(), &asciiMask);
        ASSERT_EQ(ascii, matcher->matches(UTF16(candidate), &unicodeMask));
        ASSERT_EQ(asciiMask, unicodeMask);
        ASSERT_EQ(ascii, matcher->matchesUTF8String(candidate.c_str()));
        matched += ascii;
      }
    }
  }
  EXPECT_GT(matched, 100);  // the inputs exercise matches, not only misses
}

// One matcher shared by threads: each must get the answers of a lone caller.
TEST(MatcherTest, SharedMatcherAnswersEveryThreadAlike) {
  auto matcher = Matcher("réu équ", 0, "fr_FR");
  const std::vector<std::string> candidates = {"Réunion d’équipe", "équipe", "REUNION EQUIPE",
                                               "reunion", "Ёлка"};
  std::vector<bool> expected;
  for (const std::string& c : candidates) expected.push_back(matcher->matches(c));
  EXPECT_EQ(std::count(expected.begin(), expected.end(), true), 2);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 300; ++round)
        for (size_t i = 0; i < candidates.size(); ++i)
          wrong += matcher->matches(UTF16(candidates[i])) != expected[i];
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(MatcherTest, TranscribesByLanguageWithinTheBufferLimit) {
  EXPECT_EQ(KXMatcher::transcriptionForString("Москва", "ru"), "Moskva");
  EXPECT_EQ(KXMatcher::transcriptionForString("すし カラオケ", "ja_JP"), "sushi karaoke");
  EXPECT_EQ(KXMatcher::transcriptionForString("Αθήνα", "el"), "Athena");
  EXPECT_EQ(KXMatcher::transcriptionForString("Москва", "xx"), std::nullopt);
  EXPECT_EQ(KXMatcher::transcriptionForString("Paris", "fr"), std::nullopt);
  EXPECT_EQ(KXMatcher::transcriptionForString("Москва", ""), std::nullopt);

  std::string cyrillic;
  for (int i = 0; i < 1023; ++i) cyrillic += "д";
  EXPECT_EQ(KXMatcher::transcriptionForString(cyrillic, "ru"), std::string(1023, 'd'));
  EXPECT_EQ(KXMatcher::transcriptionForString(cyrillic + "д", "ru"), std::nullopt);
}

}  // namespace
