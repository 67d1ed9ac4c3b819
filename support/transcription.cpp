#include "support/transcription.h"

#include <unicode/translit.h>
#include <unicode/uloc.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>

#include "kx/log.h"

namespace kx {
namespace {

// Text beyond this cannot transcribe into a buffer the caller sizes in
// kilobytes; refusing it early keeps a hostile caller from making ICU work.
constexpr size_t kMaximumInput = 64 * 1024;

// Each language maps to the scripts its text is written in. Diacritics are
// dropped afterwards so that what a Latin keyboard types matches.
constexpr struct {
  const char* language;
  const char* rules;
} kTransliterators[] = {
    {"ru", "Cyrillic-Latin"}, {"uk", "Cyrillic-Latin"}, {"be", "Cyrillic-Latin"},
    {"bg", "Cyrillic-Latin"}, {"sr", "Cyrillic-Latin"}, {"mk", "Cyrillic-Latin"},
    {"kk", "Cyrillic-Latin"}, {"ky", "Cyrillic-Latin"}, {"mn", "Cyrillic-Latin"},
    {"el", "Greek-Latin"},    {"ja", "Katakana-Latin; Hiragana-Latin"},
    {"zh", "Han-Latin"},      {"yue", "Han-Latin"},     {"ko", "Hangul-Latin"},
    {"ar", "Arabic-Latin"},   {"fa", "Arabic-Latin"},   {"he", "Hebrew-Latin"},
    {"th", "Thai-Latin"},     {"hi", "Devanagari-Latin"}, {"mr", "Devanagari-Latin"},
    {"ka", "Georgian-Latin"}, {"hy", "Armenian-Latin"},
};

constexpr char kDropDiacritics[] = "; NFD; [:Nonspacing Mark:] Remove; NFC";

// Transliterators are costly to build (milliseconds) and are reused. ICU
// does not promise that one may transliterate on two threads at once, so
// the mutex is held while one works.
struct Cache {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<icu::Transliterator>> byRules;
};

Cache& SharedCache() {
  static Cache* cache = new Cache;  // used until exit
  return *cache;
}

// Requires the cache's mutex. Null when ICU cannot build it.
icu::Transliterator* TransliteratorLocked(Cache& cache, const std::string& rules) {
  auto [it, inserted] = cache.byRules.try_emplace(rules);
  if (inserted) {
    UErrorCode status = U_ZERO_ERROR;
    it->second.reset(icu::Transliterator::createInstance(
        icu::UnicodeString::fromUTF8(rules + kDropDiacritics), UTRANS_FORWARD, status));
    if (U_FAILURE(status)) {
      KXLOG(3, "Cannot build transliterator %s: %s", rules, u_errorName(status));
      it->second.reset();
    }
  }
  return it->second.get();
}

}  // namespace

std::optional<std::string> TransliteratorForLanguage(const std::string& language) {
  char languageCode[ULOC_LANG_CAPACITY] = {};
  UErrorCode status = U_ZERO_ERROR;
  uloc_getLanguage(language.c_str(), languageCode, sizeof languageCode, &status);
  if (U_FAILURE(status)) return std::nullopt;
  const std::string_view code(languageCode);
  for (const auto& entry : kTransliterators)
    if (code == entry.language) return entry.rules;
  return std::nullopt;
}

bool TranscribeForLanguage(const char* text, const char* language, char* buffer, size_t size) {
  if (!text || !language || !buffer || size == 0) return false;
  const size_t length = std::strlen(text);
  if (length > kMaximumInput) return false;
  const std::optional<std::string> rules = TransliteratorForLanguage(language);
  if (!rules) return false;

  icu::UnicodeString transcribed =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text, static_cast<int32_t>(length)));
  {
    Cache& cache = SharedCache();
    std::lock_guard lock(cache.mutex);
    icu::Transliterator* transliterator = TransliteratorLocked(cache, *rules);
    if (!transliterator) return false;
    transliterator->transliterate(transcribed);
  }
  std::string utf8;
  transcribed.toUTF8String(utf8);
  if (utf8.size() + 1 > size) return false;
  std::memcpy(buffer, utf8.c_str(), utf8.size() + 1);
  return true;
}

}  // namespace kx
