// printf-style formatting over type-safe arguments.
//
// Each directive is parsed once, its argument converted to the C type the
// conversion and length modifier ask for, and formatted either directly
// (plain integers and strings, the common case in log lines) or by one
// snprintf call with a fixed, locally built directive. Never iostreams.
//
// Choices where printf leaves things open or undefined:
//   - A directive whose argument is missing prints nothing, except "%@",
//     which prints "(null)" as for an absent object.
//   - "%p" prints "0x" and lower-case hex digits; a null pointer prints "0x0".
//   - "%n" consumes its argument and writes nothing.
//   - An unknown conversion, or a directive cut off by the end of the format,
//     is copied to the output as it stands and consumes no argument.
//   - Width and precision saturate at kMaxField, so a hostile format string
//     cannot ask for gigabytes of padding.
//   - "%@" counts width and precision in characters (UTF-8 sequences), "%s"
//     in bytes as C does.
#include "kx/format.h"

#include "base/saturating_cast.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

namespace kx {

namespace {

constexpr int kMaxField = 1 << 20;

struct Directive {
  bool left = false;   // '-'
  bool plus = false;   // '+'
  bool space = false;  // ' '
  bool alt = false;    // '#'
  bool zero = false;   // '0'
  int width = 0;
  int precision = -1;  // -1: none given
  enum Length : uint8_t { None, HH, H, L, LL, Z, T, J, BigL } length = None;
  char conversion = 0;

  bool plain() const {
    return !left && !plus && !space && !alt && !zero && width == 0 && precision < 0;
  }
};


const Value* ValueOf(const FormatArg::Storage& s) {
  if (auto* p = std::get_if<const Value*>(&s)) return *p;
  if (auto* v = std::get_if<Value>(&s)) return v;
  return nullptr;
}

// The argument's bits as an integer conversion sees them.
uint64_t IntegerBits(const FormatArg& arg) {
  const auto& s = arg.storage();
  if (auto* v = std::get_if<int64_t>(&s)) return static_cast<uint64_t>(*v);
  if (auto* v = std::get_if<uint64_t>(&s)) return *v;
  if (auto* v = std::get_if<double>(&s)) {
    return *v < 0 ? static_cast<uint64_t>(SaturatingCast<int64_t>(*v))
                  : SaturatingCast<uint64_t>(*v);
  }
  if (auto* v = std::get_if<const char*>(&s)) return reinterpret_cast<uintptr_t>(*v);
  if (auto* v = std::get_if<const void*>(&s)) return reinterpret_cast<uintptr_t>(*v);
  if (const Value* v = ValueOf(s)) return v->number() ? v->number()->uint64Value() : 0;
  return 0;
}

double DoubleOf(const FormatArg& arg) {
  const auto& s = arg.storage();
  if (auto* v = std::get_if<double>(&s)) return *v;
  if (auto* v = std::get_if<int64_t>(&s)) return static_cast<double>(*v);
  if (auto* v = std::get_if<uint64_t>(&s)) return static_cast<double>(*v);
  if (const Value* v = ValueOf(s)) return v->number() ? v->number()->doubleValue() : 0;
  return 0;
}

const void* PointerOf(const FormatArg& arg) {
  const auto& s = arg.storage();
  if (auto* v = std::get_if<const void*>(&s)) return *v;
  if (auto* v = std::get_if<const char*>(&s)) return *v;
  if (auto* v = std::get_if<std::string_view>(&s)) return v->data();
  if (const Value* v = ValueOf(s)) {
    if (const ObjectRef* o = v->object()) return o->get();
    // A non-object value has no identity of its own; its holder's address
    // is the closest thing.
    return v->isNil() ? nullptr : static_cast<const void*>(v);
  }
  return reinterpret_cast<const void*>(static_cast<uintptr_t>(IntegerBits(arg)));
}

std::string PointerText(const void* p) {
  char buf[24];
  buf[0] = '0';
  buf[1] = 'x';
  auto r = std::to_chars(buf + 2, buf + sizeof buf, reinterpret_cast<uintptr_t>(p), 16);
  return std::string(buf, r.ptr);
}

// The text "%s" and "%@" print for an argument: strings as they are, values
// by description. `scratch` owns the text when it had to be made.
std::string_view TextOf(const FormatArg& arg, std::string& scratch) {
  const auto& s = arg.storage();
  if (auto* v = std::get_if<const char*>(&s)) return *v ? std::string_view(*v) : "(null)";
  if (auto* v = std::get_if<std::string_view>(&s)) return *v;
  if (const Value* v = ValueOf(s)) {
    if (const std::string* str = v->string()) return *str;
    scratch = v->description();
    return scratch;
  }
  if (auto* v = std::get_if<int64_t>(&s)) {
    scratch = std::to_string(*v);
  } else if (auto* v = std::get_if<uint64_t>(&s)) {
    scratch = std::to_string(*v);
  } else if (auto* v = std::get_if<double>(&s)) {
    scratch = Number::Double(*v).description();
  } else if (auto* v = std::get_if<const void*>(&s)) {
    scratch = *v ? PointerText(*v) : "(null)";
  }
  return scratch;
}

bool IsContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

size_t CountCharacters(std::string_view s) {
  size_t n = 0;
  for (unsigned char c : s) n += !IsContinuation(c);
  return n;
}

// The longest prefix of `s` holding at most `count` whole characters.
std::string_view PrefixCharacters(std::string_view s, size_t count) {
  size_t i = 0, seen = 0;
  while (i < s.size()) {
    if (!IsContinuation(static_cast<unsigned char>(s[i]))) {
      if (seen == count) break;
      ++seen;
    }
    ++i;
  }
  return s.substr(0, i);
}

void AppendPadded(std::string& out, std::string_view text, size_t visible, const Directive& d) {
  const size_t width = static_cast<size_t>(d.width);
  const size_t pad = width > visible ? width - visible : 0;
  if (!d.left) out.append(pad, ' ');
  out += text;
  if (d.left) out.append(pad, ' ');
}

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Builds "%<flags>*.*<length><conv>" (precision part only when given).
size_t BuildCFormat(char* f, const Directive& d, const char* length) {
  size_t n = 0;
  f[n++] = '%';
  if (d.left) f[n++] = '-';
  if (d.plus) f[n++] = '+';
  if (d.space) f[n++] = ' ';
  if (d.alt) f[n++] = '#';
  if (d.zero) f[n++] = '0';
  f[n++] = '*';
  if (d.precision >= 0) {
    f[n++] = '.';
    f[n++] = '*';
  }
  for (const char* l = length; *l; ++l) f[n++] = *l;
  f[n++] = d.conversion;
  f[n] = 0;
  return n;
}

// One snprintf call into a stack buffer, growing into `out` when needed.
template <class T>
void AppendC(std::string& out, const Directive& d, const char* length, T value) {
  char f[16];
  BuildCFormat(f, d, length);
  char buf[128];
  int n = d.precision >= 0 ? std::snprintf(buf, sizeof buf, f, d.width, d.precision, value)
                           : std::snprintf(buf, sizeof buf, f, d.width, value);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof buf) {
    out.append(buf, static_cast<size_t>(n));
    return;
  }
  const size_t at = out.size();
  out.resize(at + static_cast<size_t>(n) + 1);
  if (d.precision >= 0)
    std::snprintf(out.data() + at, static_cast<size_t>(n) + 1, f, d.width, d.precision, value);
  else
    std::snprintf(out.data() + at, static_cast<size_t>(n) + 1, f, d.width, value);
  out.resize(at + static_cast<size_t>(n));
}

void AppendSigned(std::string& out, const Directive& d, const FormatArg& arg) {
  const uint64_t bits = IntegerBits(arg);
  long long v;
  switch (d.length) {
    case Directive::HH: v = static_cast<signed char>(bits); break;
    case Directive::H: v = static_cast<short>(bits); break;
    case Directive::None: v = static_cast<int>(bits); break;
    default: v = static_cast<long long>(bits); break;
  }
  if (d.plain()) {
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
    return;
  }
  AppendC(out, d, "ll", v);
}

void AppendUnsigned(std::string& out, const Directive& d, const FormatArg& arg) {
  const uint64_t bits = IntegerBits(arg);
  unsigned long long v;
  switch (d.length) {
    case Directive::HH: v = static_cast<unsigned char>(bits); break;
    case Directive::H: v = static_cast<unsigned short>(bits); break;
    case Directive::None: v = static_cast<unsigned int>(bits); break;
    default: v = bits; break;
  }
  if (d.plain() && d.conversion != 'X') {
    const int base = d.conversion == 'u' ? 10 : d.conversion == 'o' ? 8 : 16;
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, v, base);
    out.append(buf, r.ptr);
    return;
  }
  AppendC(out, d, "ll", v);
}

void AppendString(std::string& out, const Directive& d, const FormatArg* arg) {
  std::string scratch;
  std::string_view text = arg ? TextOf(*arg, scratch) : std::string_view("(null)");
  if (d.conversion == '@') {
    if (d.precision >= 0) text = PrefixCharacters(text, static_cast<size_t>(d.precision));
    if (d.width == 0) {
      out += text;
      return;
    }
    AppendPadded(out, text, CountCharacters(text), d);
    return;
  }
  if (d.precision >= 0 && text.size() > static_cast<size_t>(d.precision)) {
    text = text.substr(0, static_cast<size_t>(d.precision));
  }
  AppendPadded(out, text, text.size(), d);
}

void AppendChar(std::string& out, const Directive& d, const FormatArg& arg) {
  const uint64_t bits = IntegerBits(arg);
  std::string text;
  if (d.length == Directive::L || d.conversion == 'C') {
    AppendUtf8(text, static_cast<uint32_t>(bits));
    AppendPadded(out, text, 1, d);
  } else {
    text += static_cast<char>(static_cast<unsigned char>(bits));
    AppendPadded(out, text, 1, d);
  }
}

// Parses a decimal number at `i`, saturating at kMaxField.
int ParseNumber(std::string_view f, size_t& i) {
  int n = 0;
  while (i < f.size() && f[i] >= '0' && f[i] <= '9') {
    n = n > kMaxField / 10 ? kMaxField : std::min(kMaxField, n * 10 + (f[i] - '0'));
    ++i;
  }
  return n;
}

// An optional "n$" position at `i`; 0 when there is none (positions count
// from 1), leaving `i` untouched.
size_t ParsePosition(std::string_view f, size_t& i) {
  size_t j = i;
  if (j >= f.size() || f[j] < '1' || f[j] > '9') return 0;
  const int n = ParseNumber(f, j);
  if (j < f.size() && f[j] == '$') {
    i = j + 1;
    return static_cast<size_t>(n);
  }
  return 0;
}

class ArgCursor {
 public:
  explicit ArgCursor(std::span<const FormatArg> args) : args_(args) {}
  // The argument at an explicit 1-based position, or the next in sequence.
  const FormatArg* take(size_t position) {
    const size_t index = position ? position - 1 : next_++;
    return index < args_.size() ? &args_[index] : nullptr;
  }

 private:
  std::span<const FormatArg> args_;
  size_t next_ = 0;
};

}  // namespace

std::string FormatV(std::string_view f, std::span<const FormatArg> args) {
  std::string out;
  out.reserve(f.size() + 16 * args.size());
  ArgCursor cursor(args);
  size_t i = 0;
  while (i < f.size()) {
    const size_t pct = f.find('%', i);
    if (pct == std::string_view::npos) {
      out.append(f.substr(i));
      break;
    }
    out.append(f.substr(i, pct - i));
    size_t j = pct + 1;
    Directive d;
    const size_t position = ParsePosition(f, j);
    for (bool flags = true; flags && j < f.size(); ) {
      switch (f[j]) {
        case '-': d.left = true; ++j; break;
        case '+': d.plus = true; ++j; break;
        case ' ': d.space = true; ++j; break;
        case '#': d.alt = true; ++j; break;
        case '0': d.zero = true; ++j; break;
        case '\'': ++j; break;  // grouping: nothing to group in the C locale
        default: flags = false;
      }
    }
    if (j < f.size() && f[j] == '*') {
      ++j;
      const FormatArg* w = cursor.take(ParsePosition(f, j));
      if (w) {
        int64_t width = static_cast<int>(IntegerBits(*w));
        if (width < 0) {
          d.left = true;
          width = -width;
        }
        d.width = static_cast<int>(std::min<int64_t>(width, kMaxField));
      }
    } else {
      d.width = ParseNumber(f, j);
    }
    if (j < f.size() && f[j] == '.') {
      ++j;
      if (j < f.size() && f[j] == '*') {
        ++j;
        const FormatArg* p = cursor.take(ParsePosition(f, j));
        const int precision = p ? static_cast<int>(IntegerBits(*p)) : -1;
        d.precision = precision < 0 ? -1 : std::min(precision, kMaxField);
      } else {
        d.precision = ParseNumber(f, j);
      }
    }
    if (j < f.size()) {
      switch (f[j]) {
        case 'h':
          ++j;
          if (j < f.size() && f[j] == 'h') {
            ++j;
            d.length = Directive::HH;
          } else {
            d.length = Directive::H;
          }
          break;
        case 'l':
          ++j;
          if (j < f.size() && f[j] == 'l') {
            ++j;
            d.length = Directive::LL;
          } else {
            d.length = Directive::L;
          }
          break;
        case 'q': ++j; d.length = Directive::LL; break;
        case 'z': ++j; d.length = Directive::Z; break;
        case 't': ++j; d.length = Directive::T; break;
        case 'j': ++j; d.length = Directive::J; break;
        case 'L': ++j; d.length = Directive::BigL; break;
        default: break;
      }
    }
    if (j >= f.size()) {
      out.append(f.substr(pct));
      break;
    }
    d.conversion = f[j++];
    switch (d.conversion) {
      case '%':
        out += '%';
        break;
      case 'D': case 'U': case 'O':
        // Obsolete spellings of "ld", "lu" and "lo".
        d.conversion = static_cast<char>(d.conversion - 'A' + 'a');
        d.length = Directive::L;
        [[fallthrough]];
      case 'd': case 'i': case 'u': case 'o': case 'x': case 'X': {
        const FormatArg* arg = cursor.take(position);
        if (!arg) break;
        if (d.conversion == 'd' || d.conversion == 'i') {
          d.conversion = 'd';
          AppendSigned(out, d, *arg);
        } else {
          AppendUnsigned(out, d, *arg);
        }
        break;
      }
      case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A': {
        const FormatArg* arg = cursor.take(position);
        if (arg) AppendC(out, d, "", DoubleOf(*arg));
        break;
      }
      case 'c': case 'C': {
        const FormatArg* arg = cursor.take(position);
        if (arg) AppendChar(out, d, *arg);
        break;
      }
      case 's': case 'S': {
        const FormatArg* arg = cursor.take(position);
        if (arg) AppendString(out, d, arg);
        break;
      }
      case '@':
        AppendString(out, d, cursor.take(position));
        break;
      case 'p': {
        const FormatArg* arg = cursor.take(position);
        if (!arg) break;
        const std::string text = PointerText(PointerOf(*arg));
        AppendPadded(out, text, text.size(), d);
        break;
      }
      case 'n':
        cursor.take(position);
        break;
      default:
        out.append(f.substr(pct, j - pct));
        break;
    }
    i = j;
  }
  return out;
}

}  // namespace kx
