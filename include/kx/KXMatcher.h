// Word-by-word matching of candidate strings against a search string, with
// the word rules of a locale, and transliteration for matching across
// scripts.
//
// The search string is split into words under the locale's rules (ICU word
// breaking, so Thai and Japanese split by dictionary). A candidate matches
// when every search word is a prefix of some word of the candidate, after
// both are folded: compatibility decomposition, letter case, and the
// diacritics of Latin, Greek and Cyrillic letters ("É" matches "e"; kana
// voicing marks and Thai vowels stay; "ß" is "ss"). After an apostrophe
// inside a word the rest also counts as a word, so "équipe" finds
// "l'équipe". Two search words may match the same candidate word. A search
// string without words matches nothing.
//
// A matcher is immutable after creation and may be used from several
// threads at once.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kx/export.h"

namespace kx {
class WordMatcher;
}

// Option bits of KXMatcher (only the low 32 bits are used).
enum : uint64_t {
  // Match when at least one search word matches, not all of them; the mask
  // tells which did.
  KXMatcherOptionAnyWord = 1u << 0,
  // Keep letter case: "Ab" no longer matches "abc".
  KXMatcherOptionCaseSensitive = 1u << 1,
  // Keep diacritics: "e" no longer matches "é".
  KXMatcherOptionDiacriticSensitive = 1u << 2,
  // Every search word but the last must equal a whole candidate word; the
  // last, still being typed, stays a prefix.
  KXMatcherOptionCompleteWords = 1u << 3,
  // The last search word may match anywhere inside a candidate word, not
  // only at its start.
  KXMatcherOptionLastWordAnywhere = 1u << 4,
};

class KX_EXPORT KXMatcher {
 public:
  // A matcher for `searchString` (UTF-8) under `locale` ("th", "de_DE",
  // "ja_JP.UTF-8"; empty: the locale of the library's string tables).
  static std::shared_ptr<KXMatcher> initWithSearchString(std::string_view searchString,
                                                         std::string_view locale,
                                                         uint64_t options);
  ~KXMatcher();
  KXMatcher(const KXMatcher&) = delete;
  KXMatcher& operator=(const KXMatcher&) = delete;

  // Number of words of the search string.
  uint64_t wordCount() const;

  // Whether `candidate` (UTF-8, or UTF-16 as toolkits hold it) matches.
  // When `outMatchBits` is given it receives bit i set for each matched
  // search word i (the first 64 words).
  bool matches(std::string_view candidate, uint64_t* outMatchBits) const;
  bool matches(std::string_view candidate) const;
  bool matches(std::u16string_view candidate, uint64_t* outMatchBits) const;
  bool matches(std::u16string_view candidate) const;

  // The same for a NUL-terminated UTF-8 string. ASCII text is matched
  // directly in its bytes.
  bool matchesUTF8String(const char* candidate, uint64_t* outMatchBits) const;
  bool matchesUTF8String(const char* candidate) const;

  // `text` written in Latin letters by the transliteration that fits
  // `language` ("ru", "el", "ja", "zh-Hans", ...): nothing when no
  // transliteration fits the language or the result exceeds 1,023 bytes.
  static std::optional<std::string> transcriptionForString(std::string_view text,
                                                           std::string_view language);

 private:
  explicit KXMatcher(std::unique_ptr<kx::WordMatcher> matcher);
  // Owned; released exactly once, with the KXMatcher. Null when ICU could
  // not build a matcher, which then matches nothing.
  const std::unique_ptr<kx::WordMatcher> matcher_;
};
