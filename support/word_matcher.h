// The word matcher behind KXMatcher: the search string's folded words and
// the candidate-side word breaking (see kx/KXMatcher.h for the rules and
// the option bits).
#pragma once

#include <unicode/brkiter.h>
#include <unicode/locid.h>

#include <bitset>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "support/ascii_word_breaker.h"
#include "support/text_folding.h"

namespace kx {

class WordMatcher {
 public:
  // Null when ICU has no word breaking for `locale`.
  static std::unique_ptr<WordMatcher> Create(std::string_view searchString,
                                             const icu::Locale& locale, uint32_t options);

  uint64_t wordCount() const { return words_.size(); }

  // Candidate text as UTF-16, always broken into words by ICU.
  bool match(std::u16string_view candidate, uint64_t* mask) const;
  // Candidate text as UTF-8: ASCII text is broken and folded in place,
  // anything else goes through the UTF-16 path. Malformed UTF-8 reads as
  // U+FFFD.
  bool matchUTF8(std::string_view candidate, uint64_t* mask) const;

 private:
  class Progress;

  WordMatcher(std::unique_ptr<icu::BreakIterator> breaker, const ASCIIWordBreaker* asciiBreaker,
              uint32_t options);
  // Splits `text` with the ICU breaker and calls visit(word) per segment
  // holding a letter or digit until it returns false.
  template <class Visit>
  void forEachICUWord(std::u16string_view text, Visit&& visit) const;
  // Records which search words the folded candidate word satisfies.
  void consider(const std::u16string& folded, bool complete, Progress& progress) const;
  // The match result, and the mask when asked for.
  bool answer(const Progress& progress, uint64_t* mask) const;
  // How much of a candidate word needs folding.
  size_t foldLimit() const;

  const uint32_t options_;
  const TextFolder folder_;
  std::vector<std::u16string> words_;  // folded search words, in order
  size_t longestWord_ = 0;
  std::bitset<128> asciiFirstUnits_;  // ASCII units that begin a folded search word

  // ICU break iterators keep state while iterating: the cached one serves
  // one caller at a time (under breakerMutex_), concurrent callers use a
  // clone of the prototype, which is never iterated and so may be read by
  // several threads at once.
  std::unique_ptr<icu::BreakIterator> cachedBreaker_;
  mutable std::mutex breakerMutex_;
  const std::unique_ptr<icu::BreakIterator> prototypeBreaker_;
  const ASCIIWordBreaker* asciiBreaker_;  // null: ASCII goes through ICU too
};

}  // namespace kx
