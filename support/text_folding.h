// Folding of words for matching: compatibility decomposition (so "ﬁ" is
// "fi" and full-width letters are ASCII), letter case, and the diacritics of
// Latin, Greek and Cyrillic letters. Marks on other scripts (kana voicing,
// Thai vowels, Hebrew points) change the letter and are kept.
#pragma once

#include <unicode/normalizer2.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kx {

struct FoldOptions {
  bool caseFold = true;
  bool stripDiacritics = true;
};

class TextFolder {
 public:
  explicit TextFolder(FoldOptions options);

  // Replaces `out` with the folded form of `word`, stopping once `out`
  // holds at least `limit` units. Returns whether the whole word was folded.
  bool fold(std::u16string_view word, std::u16string& out, size_t limit) const;

  // The same for ASCII text, which folds to itself or its lower case.
  bool foldASCII(std::string_view word, std::u16string& out, size_t limit) const;

 private:
  // Appends code point `c` folded; `stripMarks` carries whether marks after
  // the current base letter are diacritics to drop.
  void appendFolded(UChar32 c, std::u16string& out, bool& stripMarks) const;

  const icu::Normalizer2* nfkd_;  // ICU-owned singleton
  FoldOptions options_;
};

}  // namespace kx
