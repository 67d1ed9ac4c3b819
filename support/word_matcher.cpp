#include "support/word_matcher.h"

#include <unicode/uchar.h>
#include <unicode/uscript.h>
#include <unicode/ustring.h>
#include <unicode/utext.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <climits>
#include <limits>

#include "kx/KXMatcher.h"
#include "kx/log.h"

namespace kx {

// Which search words a candidate has matched so far.
class WordMatcher::Progress {
 public:
  explicit Progress(size_t words) : unmatched_(words), beyondMask_(words > 64 ? words - 64 : 0) {}

  bool isMatched(size_t i) const {
    return i < 64 ? (mask_ >> i) & 1 : static_cast<bool>(beyondMask_[i - 64]);
  }
  void setMatched(size_t i) {
    if (isMatched(i)) return;
    if (i < 64)
      mask_ |= uint64_t{1} << i;
    else
      beyondMask_[i - 64] = 1;
    --unmatched_;
  }
  size_t unmatched() const { return unmatched_; }
  uint64_t mask() const { return mask_; }

 private:
  uint64_t mask_ = 0;
  size_t unmatched_;
  std::vector<uint8_t> beyondMask_;  // words past the 64 the mask can report
};

namespace {

bool HasLetterOrDigit(std::u16string_view text) {
  const int32_t length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U16_NEXT(text.data(), i, length, c);
    if (u_isalnum(c)) return true;
  }
  return false;
}

// Without an early exit the compiler vectorises the loop; titles are short.
bool IsASCII(std::string_view text) {
  unsigned char high = 0;
  for (char c : text) high |= static_cast<unsigned char>(c);
  return high < 0x80;
}

// Whether `text` continues at `index` with a mark that belongs to the
// letter before it (an accent, a kana voicing mark) rather than one typed as
// a letter of its own (Thai or Devanagari vowel signs carry their script).
bool ContinuesWithAttachedMark(const std::u16string& text, size_t index) {
  if (index >= text.size()) return false;
  UChar32 c;
  U16_GET(text.data(), 0, index, text.size(), c);
  if (!(U_GET_GC_MASK(c) & U_GC_M_MASK)) return false;
  UErrorCode status = U_ZERO_ERROR;
  return uscript_getScript(c, &status) == USCRIPT_INHERITED;
}

// A prefix must not split a letter from its accent: "e" is no prefix of a
// kept "é", nor "か" of "が".
bool StartsWith(const std::u16string& text, const std::u16string& prefix) {
  return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin()) &&
         !ContinuesWithAttachedMark(text, prefix.size());
}

}  // namespace

std::unique_ptr<WordMatcher> WordMatcher::Create(std::string_view searchString,
                                                 const icu::Locale& locale, uint32_t options) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::BreakIterator> breaker(
      icu::BreakIterator::createWordInstance(locale, status));
  if (U_FAILURE(status) || !breaker) {
    KXLOG(3, "No word breaking for locale %s: %s", locale.getName(), u_errorName(status));
    return nullptr;
  }
  if (searchString.size() > static_cast<size_t>(INT32_MAX)) return nullptr;
  std::unique_ptr<WordMatcher> matcher(
      new WordMatcher(std::move(breaker), ASCIIWordBreaker::ForLocale(locale), options));
  const icu::UnicodeString search = icu::UnicodeString::fromUTF8(
      icu::StringPiece(searchString.data(), static_cast<int32_t>(searchString.size())));
  const std::u16string_view searchText(search.getBuffer(), search.length());
  matcher->forEachICUWord(searchText, [&](std::u16string_view word) {
    std::u16string folded;
    matcher->folder_.fold(word, folded, std::numeric_limits<size_t>::max());
    matcher->longestWord_ = std::max(matcher->longestWord_, folded.size());
    if (!folded.empty() && folded[0] < 0x80) matcher->asciiFirstUnits_.set(folded[0]);
    matcher->words_.push_back(std::move(folded));
    return true;
  });
  return matcher;
}

WordMatcher::WordMatcher(std::unique_ptr<icu::BreakIterator> breaker,
                         const ASCIIWordBreaker* asciiBreaker, uint32_t options)
    : options_(options),
      folder_({.caseFold = !(options & KXMatcherOptionCaseSensitive),
               .stripDiacritics = !(options & KXMatcherOptionDiacriticSensitive)}),
      cachedBreaker_(breaker->clone()),
      prototypeBreaker_(std::move(breaker)),
      asciiBreaker_(asciiBreaker) {}

template <class Visit>
void WordMatcher::forEachICUWord(std::u16string_view text, Visit&& visit) const {
  std::unique_lock lock(breakerMutex_, std::try_to_lock);
  std::unique_ptr<icu::BreakIterator> clone;
  icu::BreakIterator* breaker = cachedBreaker_.get();
  if (!lock.owns_lock()) {
    clone.reset(prototypeBreaker_->clone());
    breaker = clone.get();
  }
  UErrorCode status = U_ZERO_ERROR;
  UText utext = UTEXT_INITIALIZER;
  utext_openUChars(&utext, text.data(), static_cast<int64_t>(text.size()), &status);
  breaker->setText(&utext, status);
  if (U_FAILURE(status)) return;
  int32_t start = breaker->first();
  for (int32_t end = breaker->next(); end != icu::BreakIterator::DONE;
       start = end, end = breaker->next()) {
    const std::u16string_view segment = text.substr(start, end - start);
    if (HasLetterOrDigit(segment) && !visit(segment)) break;
  }
  // The cached iterator keeps pointing into the caller's text until the
  // next call replaces it before any use.
  utext_close(&utext);
}

size_t WordMatcher::foldLimit() const {
  // Past the longest search word a prefix or whole-word test is decided;
  // matching inside words needs all of them.
  if (options_ & KXMatcherOptionLastWordAnywhere) return std::numeric_limits<size_t>::max();
  return longestWord_ + 1;
}

void WordMatcher::consider(const std::u16string& folded, bool complete,
                           Progress& progress) const {
  const size_t last = words_.size() - 1;
  for (size_t i = 0; i < words_.size(); ++i) {
    if (progress.isMatched(i)) continue;
    const std::u16string& word = words_[i];
    bool matched;
    if (i == last && (options_ & KXMatcherOptionLastWordAnywhere)) {
      matched = folded.find(word) != std::u16string::npos;
    } else if (i != last && (options_ & KXMatcherOptionCompleteWords)) {
      matched = complete && folded == word;
    } else {
      matched = StartsWith(folded, word);
    }
    if (matched) progress.setMatched(i);
  }
}

bool WordMatcher::answer(const Progress& progress, uint64_t* mask) const {
  if (mask) *mask = progress.mask();
  if (words_.empty()) return false;
  return (options_ & KXMatcherOptionAnyWord) ? progress.unmatched() < words_.size()
                                             : progress.unmatched() == 0;
}

bool WordMatcher::match(std::u16string_view candidate, uint64_t* mask) const {
  Progress progress(words_.size());
  if (!words_.empty()) {
    std::u16string folded;
    const size_t limit = foldLimit();
    forEachICUWord(candidate, [&](std::u16string_view word) {
      for (std::u16string_view part = word;;) {
        consider(folded, folder_.fold(part, folded, limit), progress);
        const size_t apostrophe = part.find_first_of(u"'\u2019");
        if (apostrophe == part.npos || progress.unmatched() == 0) break;
        part.remove_prefix(apostrophe + 1);
      }
      return progress.unmatched() > 0;
    });
  }
  return answer(progress, mask);
}

bool WordMatcher::matchUTF8(std::string_view candidate, uint64_t* mask) const {
  if (!asciiBreaker_ || !IsASCII(candidate)) {
    // ICU counts in 32-bit lengths; no title comes near that.
    if (candidate.size() > static_cast<size_t>(INT32_MAX))
      return answer(Progress(words_.size()), mask);
    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(
        icu::StringPiece(candidate.data(), static_cast<int32_t>(candidate.size())));
    return match(std::u16string_view(text.getBuffer(), text.length()), mask);
  }
  Progress progress(words_.size());
  if (!words_.empty()) {
    std::u16string folded;
    const size_t limit = foldLimit();
    const bool anywhere = options_ & KXMatcherOptionLastWordAnywhere;
    asciiBreaker_->forEachWord(candidate, [&](std::string_view word) {
      for (std::string_view part = word;;) {
        // Most words cannot start any search word: skip them unfolded.
        char16_t first = static_cast<char16_t>(part[0]);
        if (!(options_ & KXMatcherOptionCaseSensitive) && first >= 'A' && first <= 'Z')
          first += 'a' - 'A';
        if (anywhere || asciiFirstUnits_.test(first))
          consider(folded, folder_.foldASCII(part, folded, limit), progress);
        const size_t apostrophe = part.find('\'');
        if (apostrophe == part.npos || progress.unmatched() == 0) break;
        part.remove_prefix(apostrophe + 1);
      }
      return progress.unmatched() > 0;
    });
  }
  return answer(progress, mask);
}

}  // namespace kx
