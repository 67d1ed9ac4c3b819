#include "searchd/html_text.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>

namespace kx::searchd {
namespace {

bool IsHtmlBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// True when html[at] starts the end tag of `name` ("</style>", "</STYLE >").
bool IsEndTagOf(std::string_view html, size_t at, const std::string& name) {
  const size_t after = at + 2 + name.size();
  if (after > html.size() || Lower(html.substr(at + 2, name.size())) != name) return false;
  return after == html.size() || !std::isalnum(static_cast<unsigned char>(html[after]));
}

// Elements whose content is not reading text.
bool IsHidden(const std::string& name) {
  return name == "head" || name == "script" || name == "style" || name == "template" || name == "title";
}

bool IsBlock(const std::string& name) {
  static constexpr std::array<std::string_view, 24> kBlocks = {
      "p",  "div", "br", "li",    "tr",         "h1",    "h2",  "h3",      "h4",     "h5",   "h6",   "ul",
      "ol", "hr",  "pre", "table", "blockquote", "section", "article", "header", "footer", "dd", "dt", "body"};
  return std::find(kBlocks.begin(), kBlocks.end(), name) != kBlocks.end();
}

// Appends `cp`, or U+FFFD for what is not a character (NUL, a surrogate,
// beyond U+10FFFF), as a browser does.
void AppendCodePoint(std::string& out, uint32_t cp) {
  if (cp == 0 || cp > 0x10FFFF || U_IS_SURROGATE(cp)) cp = 0xFFFD;
  char bytes[U8_MAX_LENGTH];
  int32_t length = 0;
  U8_APPEND_UNSAFE(bytes, length, cp);
  out.append(bytes, static_cast<size_t>(length));
}

// The code point a character reference's name stands for, 0 when unknown:
// the Latin-1 names, which European mail composers write for accented
// letters, and the punctuation they use most; others stay literal.
uint32_t NamedReference(std::string_view name) {
  // U+00A0 to U+00FF in order.
  static constexpr std::string_view kLatin1[96] = {
      "nbsp",   "iexcl",  "cent",   "pound",  "curren", "yen",    "brvbar", "sect",   "uml",    "copy",
      "ordf",   "laquo",  "not",    "shy",    "reg",    "macr",   "deg",    "plusmn", "sup2",   "sup3",
      "acute",  "micro",  "para",   "middot", "cedil",  "sup1",   "ordm",   "raquo",  "frac14", "frac12",
      "frac34", "iquest", "Agrave", "Aacute", "Acirc",  "Atilde", "Auml",   "Aring",  "AElig",  "Ccedil",
      "Egrave", "Eacute", "Ecirc",  "Euml",   "Igrave", "Iacute", "Icirc",  "Iuml",   "ETH",    "Ntilde",
      "Ograve", "Oacute", "Ocirc",  "Otilde", "Ouml",   "times",  "Oslash", "Ugrave", "Uacute", "Ucirc",
      "Uuml",   "Yacute", "THORN",  "szlig",  "agrave", "aacute", "acirc",  "atilde", "auml",   "aring",
      "aelig",  "ccedil", "egrave", "eacute", "ecirc",  "euml",   "igrave", "iacute", "icirc",  "iuml",
      "eth",    "ntilde", "ograve", "oacute", "ocirc",  "otilde", "ouml",   "divide", "oslash", "ugrave",
      "uacute", "ucirc",  "uuml",   "yacute", "thorn",  "yuml"};
  static constexpr std::pair<std::string_view, uint32_t> kOthers[] = {
      {"amp", '&'},       {"lt", '<'},        {"gt", '>'},        {"quot", '"'},      {"apos", '\''},
      {"hellip", 0x2026}, {"mdash", 0x2014},  {"ndash", 0x2013},  {"lsquo", 0x2018},  {"rsquo", 0x2019},
      {"ldquo", 0x201C},  {"rdquo", 0x201D},  {"euro", 0x20AC},   {"bull", 0x2022},   {"trade", 0x2122}};
  for (size_t i = 0; i < std::size(kLatin1); ++i)
    if (kLatin1[i] == name) return 0xA0 + static_cast<uint32_t>(i);
  for (const auto& [n, cp] : kOthers)
    if (n == name) return cp;
  return 0;
}

// Collects the text with the blank rules of the header comment.
class TextBuilder {
 public:
  void text(std::string_view s) {
    for (char c : s) {
      if (IsHtmlBlank(c)) {
        blank_ = true;
        continue;
      }
      if (blank_ && !out_.empty() && out_.back() != '\n') out_ += ' ';
      blank_ = false;
      out_ += c;
    }
  }
  void space() { blank_ = true; }
  void lineBreak() {
    if (!out_.empty() && out_.back() != '\n') out_ += '\n';
    blank_ = false;
  }
  std::string take() {
    if (!out_.empty() && out_.back() == '\n') out_.pop_back();
    return std::move(out_);
  }

 private:
  std::string out_;
  bool blank_ = false;
};

// Decodes the character reference at html[at] == '&'. Returns the bytes
// consumed, 0 when it is not a reference (the '&' is then literal).
size_t DecodeReference(std::string_view html, size_t at, TextBuilder& out) {
  constexpr size_t kLongestReference = 12;
  const size_t semicolon = html.find(';', at);
  if (semicolon == std::string_view::npos || semicolon - at > kLongestReference) return 0;
  const std::string_view name = html.substr(at + 1, semicolon - at - 1);
  uint32_t cp = 0;
  if (name.size() > 1 && name[0] == '#') {
    const bool hex = name[1] == 'x' || name[1] == 'X';
    const std::string_view digits = name.substr(hex ? 2 : 1);
    if (digits.empty()) return 0;
    for (char c : digits) {
      const int d = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                    : hex && std::isxdigit(static_cast<unsigned char>(c))
                        ? std::tolower(static_cast<unsigned char>(c)) - 'a' + 10
                        : -1;
      if (d < 0) return 0;
      cp = std::min<uint32_t>(cp * (hex ? 16 : 10) + static_cast<uint32_t>(d), 0x110000);
    }
  } else if ((cp = NamedReference(name)) == 0) {
    return 0;
  }
  if (cp == 0xA0) {
    out.space();
  } else if (cp != 0xAD) {  // a soft hyphen is invisible
    std::string utf8;
    AppendCodePoint(utf8, cp);
    out.text(utf8);
  }
  return semicolon - at + 1;
}

// The end of the tag that starts at html[at] == '<': after its '>', quoted
// attribute values skipped. The end of the input for an unterminated tag.
size_t TagEnd(std::string_view html, size_t at) {
  char quote = 0;
  for (size_t i = at + 1; i < html.size(); ++i) {
    const char c = html[i];
    if (quote) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return i + 1;
    }
  }
  return html.size();
}

}  // namespace

std::string HtmlToText(std::string_view html) {
  TextBuilder out;
  size_t i = 0;
  while (i < html.size()) {
    const char c = html[i];
    if (c == '&') {
      const size_t used = DecodeReference(html, i, out);
      if (used == 0) out.text("&");
      i += std::max<size_t>(used, 1);
      continue;
    }
    if (c != '<') {
      const size_t next = std::min(html.find_first_of("<&", i), html.size());
      out.text(html.substr(i, next - i));
      i = next;
      continue;
    }
    if (html.compare(i, 4, "<!--") == 0) {
      const size_t end = html.find("-->", i + 4);
      i = end == std::string_view::npos ? html.size() : end + 3;
      continue;
    }
    const bool closing = i + 1 < html.size() && html[i + 1] == '/';
    size_t n = i + (closing ? 2 : 1);
    const size_t nameStart = n;
    const bool named = n < html.size() && std::isalpha(static_cast<unsigned char>(html[n]));
    while (named && n < html.size() && std::isalnum(static_cast<unsigned char>(html[n]))) ++n;
    if (!named && !(n < html.size() && (html[n] == '!' || html[n] == '?'))) {
      out.text("<");  // "a < b" is text, not a tag
      ++i;
      continue;
    }
    const std::string name = Lower(html.substr(nameStart, n - nameStart));
    i = TagEnd(html, i);
    if (!closing && IsHidden(name)) {
      // Everything up to the matching end tag; an unterminated element
      // hides the rest of the document, as a browser would.
      size_t end = i;
      while ((end = html.find("</", end)) != std::string_view::npos && !IsEndTagOf(html, end, name)) end += 2;
      i = end == std::string_view::npos ? html.size() : TagEnd(html, end);
      continue;
    }
    if (IsBlock(name)) {
      out.lineBreak();
    } else if (name == "td" || name == "th") {
      out.space();
    }
  }
  return out.take();
}

}  // namespace kx::searchd
