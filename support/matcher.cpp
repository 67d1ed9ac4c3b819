#include "kx/KXMatcher.h"

#include "platform/strings/localized_strings.h"
#include "support/transcription.h"
#include "support/word_matcher.h"

namespace {

// The size the transcription is written into, terminating NUL included.
constexpr size_t kTranscriptionBufferSize = 1024;

icu::Locale MatchingLocale(std::string_view name) {
  const std::string icuName =
      kx::ICULocaleForPOSIXLocale(name.empty() ? kx::LocalizationLocaleName() : name);
  return icuName == "root" ? icu::Locale::getRoot() : icu::Locale(icuName.c_str());
}

}  // namespace

std::shared_ptr<KXMatcher> KXMatcher::initWithSearchString(std::string_view searchString,
                                                           std::string_view locale,
                                                           uint64_t options) {
  return std::shared_ptr<KXMatcher>(new KXMatcher(kx::WordMatcher::Create(
      searchString, MatchingLocale(locale), static_cast<uint32_t>(options))));
}

KXMatcher::KXMatcher(std::unique_ptr<kx::WordMatcher> matcher) : matcher_(std::move(matcher)) {}

KXMatcher::~KXMatcher() = default;

uint64_t KXMatcher::wordCount() const { return matcher_ ? matcher_->wordCount() : 0; }

bool KXMatcher::matches(std::string_view candidate, uint64_t* outMatchBits) const {
  if (!matcher_) {
    if (outMatchBits) *outMatchBits = 0;
    return false;
  }
  return matcher_->matchUTF8(candidate, outMatchBits);
}

bool KXMatcher::matches(std::string_view candidate) const { return matches(candidate, nullptr); }

bool KXMatcher::matches(std::u16string_view candidate, uint64_t* outMatchBits) const {
  if (!matcher_) {
    if (outMatchBits) *outMatchBits = 0;
    return false;
  }
  return matcher_->match(candidate, outMatchBits);
}

bool KXMatcher::matches(std::u16string_view candidate) const {
  return matches(candidate, nullptr);
}

bool KXMatcher::matchesUTF8String(const char* candidate, uint64_t* outMatchBits) const {
  return matches(std::string_view(candidate ? candidate : ""), outMatchBits);
}

bool KXMatcher::matchesUTF8String(const char* candidate) const {
  return matchesUTF8String(candidate, nullptr);
}

std::optional<std::string> KXMatcher::transcriptionForString(std::string_view text,
                                                             std::string_view language) {
  const std::string textZ(text);
  const std::string languageZ(language);
  char buffer[kTranscriptionBufferSize];
  if (!kx::TranscribeForLanguage(textZ.c_str(), languageZ.c_str(), buffer, sizeof buffer))
    return std::nullopt;
  return std::string(buffer);
}
