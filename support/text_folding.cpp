#include "support/text_folding.h"

#include <unicode/uchar.h>
#include <unicode/uscript.h>
#include <unicode/utf16.h>

#include "kx/log.h"

namespace kx {
namespace {

char16_t ASCIILower(char16_t c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; }

bool HasDroppableDiacritics(UChar32 base) {
  UErrorCode status = U_ZERO_ERROR;
  switch (uscript_getScript(base, &status)) {
    case USCRIPT_LATIN:
    case USCRIPT_GREEK:
    case USCRIPT_CYRILLIC:
    case USCRIPT_COMMON:
      return true;
    default:
      return false;
  }
}

void AppendCodePoint(UChar32 c, std::u16string& out) {
  if (U_IS_BMP(c)) {
    out.push_back(static_cast<char16_t>(c));
  } else {
    out.push_back(U16_LEAD(c));
    out.push_back(U16_TRAIL(c));
  }
}

}  // namespace

TextFolder::TextFolder(FoldOptions options) : options_(options) {
  UErrorCode status = U_ZERO_ERROR;
  nfkd_ = icu::Normalizer2::getNFKDInstance(status);
  if (U_FAILURE(status)) {
    KXLOG(3, "No compatibility decomposition: %s", u_errorName(status));
    nfkd_ = nullptr;
  }
}

void TextFolder::appendFolded(UChar32 c, std::u16string& out, bool& stripMarks) const {
  if (u_charType(c) == U_NON_SPACING_MARK) {
    if (options_.stripDiacritics && stripMarks) return;
  } else {
    stripMarks = HasDroppableDiacritics(c);
  }
  if (options_.caseFold) {
    // Full case folding where it matters to German typists; the other
    // one-to-many foldings are ligatures that decomposition already split.
    if (c == 0x00DF || c == 0x1E9E) {
      out.append(u"ss");
      return;
    }
    c = u_foldCase(c, U_FOLD_CASE_DEFAULT);
  }
  AppendCodePoint(c, out);
}

bool TextFolder::fold(std::u16string_view word, std::u16string& out, size_t limit) const {
  out.clear();
  bool stripMarks = false;
  icu::UnicodeString decomposition;
  const int32_t length = static_cast<int32_t>(word.size());
  for (int32_t i = 0; i < length;) {
    if (out.size() >= limit) return false;
    UChar32 c;
    U16_NEXT(word.data(), i, length, c);
    if (c < 0x80) {
      out.push_back(options_.caseFold ? ASCIILower(static_cast<char16_t>(c))
                                      : static_cast<char16_t>(c));
      stripMarks = true;
    } else if (nfkd_ && nfkd_->getDecomposition(c, decomposition)) {
      for (int32_t j = 0; j < decomposition.length();) {
        const UChar32 part = decomposition.char32At(j);
        j += U16_LENGTH(part);
        appendFolded(part, out, stripMarks);
      }
    } else {
      appendFolded(c, out, stripMarks);
    }
  }
  return true;
}

bool TextFolder::foldASCII(std::string_view word, std::u16string& out, size_t limit) const {
  out.clear();
  for (char c : word) {
    if (out.size() >= limit) return false;
    out.push_back(options_.caseFold ? ASCIILower(static_cast<char16_t>(c))
                                    : static_cast<char16_t>(c));
  }
  return true;
}

}  // namespace kx
