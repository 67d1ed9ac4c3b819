// Keystrokes from a terminal in raw mode, decoded into the few things the
// interactive search reacts to. Bytes may arrive split anywhere (an escape
// sequence or a UTF-8 character across two reads), so the decoder keeps
// what it could not finish yet.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kx::cli {

struct Key {
  enum class Kind { Text, Backspace, Up, Down, Enter, Quit };
  Kind kind;
  std::string text;  // one UTF-8 character, for Text
  bool operator==(const Key&) const = default;
};

class KeyDecoder {
 public:
  std::vector<Key> feed(std::string_view bytes);
  // A lone escape is only known once no sequence followed it: the caller
  // says so when the terminal stays silent after it.
  std::vector<Key> flush();

 private:
  std::string pending_;
};

// The length of the UTF-8 sequence that starts with `lead`; a stray
// continuation byte counts as one so that a reader always advances.
size_t Utf8SequenceLength(unsigned char lead);

// The query text being edited: characters appended, the last removed.
// Returns whether the text changed.
bool ApplyToText(const Key& key, std::string& text);

}  // namespace kx::cli
