// Text normalisation shared by the indexer and the query path. Both sides
// must fold and split text the same way, or a prefix typed by the user would
// miss the words stored for it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kx::searchd {

// Lower-cased, diacritics removed (canonical decomposition, combining
// diacritical marks dropped), recomposed. Mirrors FTS5's `unicode61 remove_diacritics 2`
// closely enough that a folded query prefix matches the tokens it indexed.
std::string Fold(std::string_view text);

// The words of `text` by ICU word breaking (dictionary based for CJK and
// Thai, which separate words without spaces); punctuation and blanks are
// dropped. The words keep their original case.
std::vector<std::string> Words(std::string_view text);

// Builds what ICU makes on first use of word breaking (rules, the
// dictionaries of the scripts above, its caches). Called before query
// threads start: ICU publishes these through its own atomics, which
// ThreadSanitizer cannot see inside the uninstrumented library and takes
// for races between the first threads to break words, and thread creation
// orders what is built here before every later use. It also spares the
// first query of each script the loading.
void WarmUpWordBreaking();

// True when `text` holds a character of a script written without spaces
// between words (Han, Hiragana, Katakana, Thai, Lao, Khmer, Myanmar).
bool HasUnspacedScript(std::string_view text);

// The first `count` code points of `word` (all of it when shorter).
std::string CodePointPrefix(std::string_view word, size_t count);
size_t CodePointCount(std::string_view text);

// `text` with every run of blanks and line breaks made one space, and none
// at either end.
std::string CollapseBlanks(std::string_view text);

// The first `count` code points of `text`, with "…" when it was longer.
std::string Snippet(std::string_view text, size_t count);

// True when `text` is valid UTF-8.
bool IsValidUtf8(std::string_view text);

}  // namespace kx::searchd
