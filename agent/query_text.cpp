#include "agent/query_text.h"

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <cstring>

namespace kx {
namespace {

bool IsWhiteSpace(UChar32 c) { return c == '\t' || u_charType(c) == U_SPACE_SEPARATOR; }

icu::UnicodeString ToUnicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

}  // namespace

std::string TrimWhiteSpace(std::string_view text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const int32_t length = static_cast<int32_t>(text.size());
  int32_t begin = 0;
  while (begin < length) {
    int32_t next = begin;
    UChar32 c;
    U8_NEXT(bytes, next, length, c);
    if (!IsWhiteSpace(c)) break;
    begin = next;
  }
  int32_t end = length;
  while (end > begin) {
    int32_t previous = end;
    UChar32 c;
    U8_PREV(bytes, begin, previous, c);
    if (!IsWhiteSpace(c)) break;
    end = previous;
  }
  return std::string(text.substr(begin, end - begin));
}

std::string UppercaseString(std::string_view text) {
  std::string out;
  ToUnicode(text).toUpper(icu::Locale::getRoot()).toUTF8String(out);
  return out;
}

bool CaseInsensitiveEqual(std::string_view a, std::string_view b) {
  return ToUnicode(a).caseCompare(ToUnicode(b), U_FOLD_CASE_DEFAULT) == 0;
}

std::string PercentEncodeForURLQuery(std::string_view text) {
  static constexpr char kAllowedPunctuation[] = "!$&'()*+,-./:;=?@_~";
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (alnum || (c != 0 && std::strchr(kAllowedPunctuation, c))) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

}  // namespace kx
