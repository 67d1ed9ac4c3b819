#include "searchd/text.h"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uscript.h>
#include <unicode/utf8.h>

#include <memory>
#include <mutex>

namespace kx::searchd {
namespace {

// Break iterators are not thread-safe; every thread keeps its own.
icu::BreakIterator* ThreadWordBreaker() {
  thread_local std::unique_ptr<icu::BreakIterator> breaker = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> b(
        icu::BreakIterator::createWordInstance(icu::Locale::getRoot(), status));
    return U_SUCCESS(status) ? std::move(b) : nullptr;
  }();
  return breaker.get();
}

icu::UnicodeString FromUtf8(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string ToUtf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}


// Only the combining diacritical blocks go: the vowel and tone marks of
// Thai, Devanagari and friends are non-spacing marks too, but letters of
// their words.
bool IsCombiningDiacritic(UChar c) {
  return (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) ||
         (c >= 0x1DC0 && c <= 0x1DFF) || (c >= 0x20D0 && c <= 0x20FF) || (c >= 0xFE20 && c <= 0xFE2F);
}

// True when `test` holds for every code point of `text` (ill-formed
// sequences are passed as negative values); stops at the first that fails.
template <class Test>
bool AllCodePoints(std::string_view text, Test test) {
  int32_t i = 0;
  const int32_t length = static_cast<int32_t>(text.size());
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  while (i < length) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (!test(c)) return false;
  }
  return true;
}

}  // namespace

std::string Fold(std::string_view text) {
  // Plain ASCII is the common case and needs no normalisation.
  bool ascii = true;
  for (char c : text) ascii &= static_cast<unsigned char>(c) < 0x80;
  if (ascii) {
    std::string out(text);
    for (char& c : out)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
  }
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  if (U_FAILURE(status)) return std::string(text);
  icu::UnicodeString decomposed = nfd->normalize(FromUtf8(text), status);
  icu::UnicodeString kept;
  for (int32_t i = 0; i < decomposed.length(); ++i)
    if (!IsCombiningDiacritic(decomposed.charAt(i))) kept.append(decomposed.charAt(i));
  kept.toLower(icu::Locale::getRoot());
  icu::UnicodeString composed = nfc->normalize(kept, status);
  return U_SUCCESS(status) ? ToUtf8(composed) : ToUtf8(kept);
}

std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words;
  icu::BreakIterator* breaker = ThreadWordBreaker();
  if (!breaker) return words;
  const icu::UnicodeString u = FromUtf8(text);
  breaker->setText(u);
  int32_t start = breaker->first();
  for (int32_t end = breaker->next(); end != icu::BreakIterator::DONE;
       start = end, end = breaker->next()) {
    // Status UBRK_WORD_NONE marks spaces and punctuation.
    if (breaker->getRuleStatus() == UBRK_WORD_NONE) continue;
    words.push_back(ToUtf8(u.tempSubStringBetween(start, end)));
  }
  return words;
}

void WarmUpWordBreaking() {
  Words(Fold("Warm-up: Émile 東京 ひらがな カタカナ ภาษาไทย ພາສາລາວ ភាសាខ្មែរ မြန်မာ"));
}

bool HasUnspacedScript(std::string_view text) {
  return !AllCodePoints(text, [](UChar32 c) {
    if (c < 0x0E00) return true;  // Thai is the lowest of these scripts
    UErrorCode status = U_ZERO_ERROR;
    switch (uscript_getScript(c, &status)) {
      case USCRIPT_HAN: case USCRIPT_HIRAGANA: case USCRIPT_KATAKANA:
      case USCRIPT_THAI: case USCRIPT_LAO: case USCRIPT_KHMER: case USCRIPT_MYANMAR:
        return false;
      default:
        return true;
    }
  });
}

std::string CodePointPrefix(std::string_view word, size_t count) {
  int32_t i = 0;
  const int32_t length = static_cast<int32_t>(word.size());
  const auto* bytes = reinterpret_cast<const uint8_t*>(word.data());
  for (size_t n = 0; n < count && i < length; ++n) U8_FWD_1(bytes, i, length);
  return std::string(word.substr(0, static_cast<size_t>(i)));
}

size_t CodePointCount(std::string_view text) {
  int32_t i = 0;
  size_t n = 0;
  const int32_t length = static_cast<int32_t>(text.size());
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  for (; i < length; ++n) U8_FWD_1(bytes, i, length);
  return n;
}

std::string CollapseBlanks(std::string_view text) {
  std::string out;
  bool blank = false;
  for (char c : text) {
    if (c == ' ' || c == '\n' || c == '\t' || c == '\r') {
      blank = !out.empty();
      continue;
    }
    if (blank) out += ' ';
    blank = false;
    out += c;
  }
  return out;
}

std::string Snippet(std::string_view text, size_t count) {
  std::string snippet = CodePointPrefix(text, count);
  if (snippet.size() < text.size()) snippet += "…";
  return snippet;
}

bool IsValidUtf8(std::string_view text) {
  return AllCodePoints(text, [](UChar32 c) { return c >= 0; });
}

}  // namespace kx::searchd
