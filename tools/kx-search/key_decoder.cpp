#include "tools/kx-search/key_decoder.h"

namespace kx::cli {
namespace {

constexpr char kEscape = '\x1b';

bool IsContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

}  // namespace

size_t Utf8SequenceLength(unsigned char lead) {
  if (lead >= 0xF0) return 4;
  if (lead >= 0xE0) return 3;
  if (lead >= 0xC0) return 2;
  return 1;
}

std::vector<Key> KeyDecoder::feed(std::string_view bytes) {
  pending_.append(bytes);
  std::vector<Key> keys;
  size_t i = 0;
  while (i < pending_.size()) {
    const char c = pending_[i];
    if (c == kEscape) {
      // CSI or SS3 sequences: ESC [ ... final, ESC O final.
      if (i + 1 >= pending_.size()) break;
      const char introducer = pending_[i + 1];
      if (introducer != '[' && introducer != 'O') {
        keys.push_back({Key::Kind::Quit, {}});
        ++i;
        continue;
      }
      size_t end = i + 2;
      while (end < pending_.size() && !(pending_[end] >= 0x40 && pending_[end] <= 0x7E)) ++end;
      if (end >= pending_.size()) break;
      if (pending_[end] == 'A') keys.push_back({Key::Kind::Up, {}});
      if (pending_[end] == 'B') keys.push_back({Key::Kind::Down, {}});
      // Other sequences (function keys, left and right) are ignored.
      i = end + 1;
    } else if (c == '\r' || c == '\n') {
      keys.push_back({Key::Kind::Enter, {}});
      ++i;
    } else if (c == '\x7f' || c == '\b') {
      keys.push_back({Key::Kind::Backspace, {}});
      ++i;
    } else if (c == '\x03' || c == '\x04') {  // Ctrl-C, Ctrl-D
      keys.push_back({Key::Kind::Quit, {}});
      ++i;
    } else if (static_cast<unsigned char>(c) < 0x20 || IsContinuation(c)) {
      ++i;  // other control characters and stray continuation bytes
    } else {
      const size_t length = Utf8SequenceLength(static_cast<unsigned char>(c));
      if (i + length > pending_.size()) break;
      keys.push_back({Key::Kind::Text, pending_.substr(i, length)});
      i += length;
    }
  }
  pending_.erase(0, i);
  return keys;
}

std::vector<Key> KeyDecoder::flush() {
  std::vector<Key> keys;
  if (pending_ == std::string(1, kEscape)) keys.push_back({Key::Kind::Quit, {}});
  pending_.clear();
  return keys;
}

bool ApplyToText(const Key& key, std::string& text) {
  if (key.kind == Key::Kind::Text) {
    text += key.text;
    return true;
  }
  if (key.kind != Key::Kind::Backspace || text.empty()) return false;
  size_t end = text.size() - 1;
  while (end > 0 && IsContinuation(text[end])) --end;
  text.erase(end);
  return true;
}

}  // namespace kx::cli
