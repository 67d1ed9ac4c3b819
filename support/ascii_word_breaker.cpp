#include "support/ascii_word_breaker.h"

#include <unicode/brkiter.h>
#include <unicode/utext.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kx/log.h"

namespace kx {
namespace {

using Segments = std::vector<std::pair<size_t, size_t>>;

// Every printable ASCII character between, before and after letters and
// digits, plus chains of middle characters.
std::string ProbeText() {
  std::string probe = "x.y.z 1.2.3 a1.2 1a.b a_.b 1_,2 'a' a''b 1..2 ";
  for (char c = 0x21; c < 0x7F; ++c) {
    for (const char* shape : {"a#b", "1#2", "a#1", "1#a", "#a", "a#", "##a", "_#a", "a#_"}) {
      for (const char* p = shape; *p; ++p) probe += *p == '#' ? c : *p;
      probe += ' ';
    }
  }
  return probe;
}

bool HasLetterOrDigit(std::string_view text) {
  for (char c : text)
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return false;
}

// ICU's word segments of `text` that hold a letter or digit.
Segments ICUSegments(icu::BreakIterator& breaker, std::string_view text) {
  Segments segments;
  UErrorCode status = U_ZERO_ERROR;
  UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
  breaker.setText(utext, status);
  int32_t start = breaker.first();
  for (int32_t end = breaker.next(); end != icu::BreakIterator::DONE;
       start = end, end = breaker.next()) {
    const std::string_view segment = text.substr(start, end - start);
    if (HasLetterOrDigit(segment)) segments.emplace_back(start, end);
  }
  utext_close(utext);
  return segments;
}

bool JoinsAsOneSegment(icu::BreakIterator& breaker, std::string_view text) {
  const Segments segments = ICUSegments(breaker, text);
  return segments.size() == 1 && segments[0].second - segments[0].first == text.size();
}

}  // namespace

ASCIIWordBreaker::ASCIIWordBreaker(icu::BreakIterator& icuBreaker) {
  for (int c = 'a'; c <= 'z'; ++c) classes_[c] = classes_[c - 'a' + 'A'] = kLetter;
  for (int c = '0'; c <= '9'; ++c) classes_[c] = kDigit;
  classes_['@'] = kLetter;
  classes_['_'] = kExtend;
  // Which middle characters join letters, digits or both differs between
  // locales (':' in Swedish, '.' in the POSIX locale): ask ICU.
  for (char c : {'.', '\'', ',', ';', ':'}) {
    const bool letters = JoinsAsOneSegment(icuBreaker, std::string{'a', c, 'b'});
    const bool digits = JoinsAsOneSegment(icuBreaker, std::string{'1', c, '2'});
    classes_[static_cast<unsigned char>(c)] =
        letters ? (digits ? kMidNumLet : kMidLetter) : (digits ? kMidNum : kOther);
  }
}

const ASCIIWordBreaker* ASCIIWordBreaker::ForLocale(const icu::Locale& locale) {
  static std::mutex mutex;
  static auto* verified = new std::map<std::string, std::unique_ptr<ASCIIWordBreaker>>;
  std::lock_guard lock(mutex);
  auto [it, inserted] = verified->try_emplace(locale.getName());
  if (!inserted) return it->second.get();

  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::BreakIterator> icuBreaker(
      icu::BreakIterator::createWordInstance(locale, status));
  if (U_FAILURE(status)) return nullptr;
  std::unique_ptr<ASCIIWordBreaker> breaker(new ASCIIWordBreaker(*icuBreaker));
  const std::string probe = ProbeText();
  Segments ours;
  breaker->forEachWord(probe, [&](std::string_view word) {
    const size_t start = static_cast<size_t>(word.data() - probe.data());
    ours.emplace_back(start, start + word.size());
    return true;
  });
  if (ours != ICUSegments(*icuBreaker, probe)) {
    KXLOG(6, "ICU splits ASCII words differently for %s; matching goes through ICU",
          locale.getName());
    return nullptr;
  }
  it->second = std::move(breaker);
  return it->second.get();
}

}  // namespace kx
