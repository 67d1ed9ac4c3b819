#include "tests/crash_soak/random_text.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "platform/message/message_codec.h"

namespace kx::soak {
namespace {

// Letters, and every byte of a multi-byte UTF-8 sequence,
// make up words; the rest separates them. Digits are left out: a text with
// one may be a calculation, and the calculator computes on a thread that
// ThreadSanitizer cannot follow.
bool IsWordByte(unsigned char c) { return std::isalpha(c) || c >= 0x80; }

size_t Utf8Characters(const std::string& word) {
  return static_cast<size_t>(std::count_if(word.begin(), word.end(),
                                           [](unsigned char c) { return (c & 0xC0) != 0x80; }));
}

// The first `n` characters of `word`.
std::string Utf8Prefix(const std::string& word, size_t n) {
  size_t end = 0;
  for (size_t seen = 0; end < word.size(); ++end)
    if ((static_cast<unsigned char>(word[end]) & 0xC0) != 0x80 && seen++ == n) break;
  return word.substr(0, end);
}

}  // namespace

RandomText::RandomText(const std::string& dataDir, uint64_t seed) : random_(seed) {
  std::set<std::string> words;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dataDir)) {
    if (!entry.is_regular_file() || entry.path().extension() == ".png") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    for (size_t i = 0; i < text.size();) {
      size_t end = i;
      while (end < text.size() && IsWordByte(static_cast<unsigned char>(text[end]))) ++end;
      if (end > i) {
        std::string word = text.substr(i, end - i);
        // Sample files that are broken on purpose hold malformed UTF-8,
        // which no keyboard types.
        if (Utf8Characters(word) >= 2 && word.size() <= 24 &&
            IsValidUtf8(reinterpret_cast<const uint8_t*>(word.data()), word.size()))
          words.insert(std::move(word));
        i = end;
      } else {
        ++i;
      }
    }
  }
  words_.assign(words.begin(), words.end());
}

std::string RandomText::next() {
  static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz";
  std::string text;
  for (size_t pieces = 1 + below(3), i = 0; i < pieces; ++i) {
    if (!text.empty()) text += ' ';
    const size_t kind = below(10);
    if (kind < 5 && !words_.empty()) {
      text += words_[below(words_.size())];
    } else if (kind < 8 && !words_.empty()) {
      const std::string& word = words_[below(words_.size())];
      text += Utf8Prefix(word, 1 + below(Utf8Characters(word)));
    } else {
      for (size_t n = 1 + below(3); n > 0; --n) text += kLetters[below(26)];
    }
  }
  return text;
}

}  // namespace kx::soak
