// Latin transcriptions of text for a language, through ICU transliterators.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace kx {

// The ICU transliterator identifier for `language` (a BCP 47 or POSIX
// identifier: "ru", "zh-Hant", "ja_JP"), nullopt for languages whose script
// has no Latin transcription here or is Latin already.
std::optional<std::string> TransliteratorForLanguage(const std::string& language);

// Writes the NUL-terminated UTF-8 transcription of `text` into `buffer` of
// `size` bytes. False, with nothing promised about the buffer, when no
// transliterator fits the language or the transcription does not fit.
// Safe to call from any thread.
bool TranscribeForLanguage(const char* text, const char* language, char* buffer, size_t size);

}  // namespace kx
