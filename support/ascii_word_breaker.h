// Word segmentation of pure ASCII text without ICU, for the matcher's fast
// path. It reproduces the locale's ICU word rules for ASCII: letters (and
// '@'), digits and '_' join; each of . ' , ; : joins two letters, two
// digits, both or neither, as the locale's rules say ('.' and '\'' join
// both in most locales, ':' joins letters in Swedish). A breaker is only
// handed out for a locale after its segmentation of a probe text has been
// checked against ICU's.
#pragma once

#include <unicode/brkiter.h>
#include <unicode/locid.h>

#include <array>
#include <cstdint>
#include <string_view>

namespace kx {

class ASCIIWordBreaker {
 public:
  // The breaker for `locale`, built and verified once per locale and kept
  // for the life of the process; null when ICU segments ASCII differently
  // from what this breaker can express. Safe to call from any thread.
  static const ASCIIWordBreaker* ForLocale(const icu::Locale& locale);

  // Calls `visit(word)` for each segment of `text` that holds a letter or a
  // digit, in order; stops early when `visit` returns false.
  template <class Visit>
  void forEachWord(std::string_view text, Visit&& visit) const;

  enum Class : uint8_t { kOther, kLetter, kDigit, kExtend, kMidLetter, kMidNum, kMidNumLet };

 private:
  explicit ASCIIWordBreaker(icu::BreakIterator& icuBreaker);
  Class classOf(char c) const { return classes_[static_cast<unsigned char>(c) & 0x7F]; }

  std::array<Class, 128> classes_{};
};

template <class Visit>
void ASCIIWordBreaker::forEachWord(std::string_view text, Visit&& visit) const {
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    Class k = classOf(text[i]);
    if (k != kLetter && k != kDigit && k != kExtend) {
      ++i;
      continue;
    }
    const size_t start = i;
    bool hasLetterOrDigit = false;
    Class previous = kOther;
    while (i < n) {
      k = classOf(text[i]);
      if (k == kLetter || k == kDigit || k == kExtend) {
        const char c = text[i];
        hasLetterOrDigit |= k == kDigit || (c != '@' && k == kLetter);
        previous = k;
        ++i;
        continue;
      }
      // A middle character joins only between two letters or two digits.
      if (i + 1 < n) {
        const Class next = classOf(text[i + 1]);
        const bool letters = previous == kLetter && next == kLetter &&
                             (k == kMidLetter || k == kMidNumLet);
        const bool digits = previous == kDigit && next == kDigit &&
                            (k == kMidNum || k == kMidNumLet);
        if (letters || digits) {
          ++i;
          continue;
        }
      }
      break;
    }
    if (hasLetterOrDigit && !visit(text.substr(start, i - start))) return;
  }
}

}  // namespace kx
