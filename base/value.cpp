// The value model. A Value is a shared pointer to immutable storage; nil is
// the null pointer. Containers are copied only when a holder that is not the
// sole owner asks for mutable access.
#include "kx/value.h"

#include "base/saturating_cast.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <limits>
#include <variant>

namespace kx {

namespace {

constexpr size_t kHashSeed = 0x9e3779b97f4a7c15ull;

inline size_t Mix(size_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ull;
  h ^= h >> 33;
  return h;
}

inline size_t Combine(size_t seed, size_t h) { return Mix(seed ^ (h + kHashSeed + (seed << 6))); }

size_t HashBytes(std::string_view s) { return std::hash<std::string_view>()(s); }

size_t HashDouble(double d) {
  if (d == 0) d = 0;  // -0.0 and 0.0 are equal, so they hash alike.
  if (std::isnan(d)) return 0x7ff8;
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  return Mix(bits);
}


std::string ShortestDouble(double d) {
  if (std::isnan(d)) return "nan";
  if (std::isinf(d)) return d < 0 ? "-inf" : "inf";
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof buf, d);
  return std::string(buf, r.ptr);
}

std::string ShortestFloat(float f) {
  if (std::isnan(f)) return "nan";
  if (std::isinf(f)) return f < 0 ? "-inf" : "inf";
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof buf, f);
  return std::string(buf, r.ptr);
}

}  // namespace

// ---------------------------------------------------------------------------
// Object

Object::~Object() = default;

std::string Object::description() const { return baseDescription(); }

bool Object::isEqual(const Object& other) const { return this == &other; }

size_t Object::hash() const { return Mix(reinterpret_cast<uintptr_t>(this)); }

std::string Object::baseDescription() const {
  char addr[24];
  int n = std::snprintf(addr, sizeof addr, "%lx", static_cast<unsigned long>(
                                                      reinterpret_cast<uintptr_t>(this)));
  std::string out;
  out.reserve(className().size() + n + 6);
  out += '<';
  out += className();
  out += ": 0x";
  out.append(addr, n);
  out += '>';
  return out;
}

// ---------------------------------------------------------------------------
// Number
//
// Invariant: integral types keep their value in `bits_.i` (signed and Bool,
// Char) or `bits_.u` (unsigned); Float and Double keep theirs in `bits_.d`
// (a Float's value is exactly representable as double).

Number Number::Bool(bool v) {
  Number n(int64_t{v ? 1 : 0});
  n.type_ = Type::Bool;
  return n;
}
Number Number::Char(int8_t v) {
  Number n(int64_t{v});
  n.type_ = Type::Char;
  return n;
}
Number Number::Int16(int16_t v) {
  Number n(int64_t{v});
  n.type_ = Type::Int16;
  return n;
}
Number Number::Int32(int32_t v) {
  Number n(int64_t{v});
  n.type_ = Type::Int32;
  return n;
}
Number Number::Int64(int64_t v) { return Number(v); }
Number Number::UInt16(uint16_t v) {
  Number n;
  n.type_ = Type::UInt16;
  n.bits_.u = v;
  return n;
}
Number Number::UInt32(uint32_t v) {
  Number n;
  n.type_ = Type::UInt32;
  n.bits_.u = v;
  return n;
}
Number Number::UInt64(uint64_t v) {
  Number n;
  n.type_ = Type::UInt64;
  n.bits_.u = v;
  return n;
}
Number Number::Float(float v) {
  Number n;
  n.type_ = Type::Float;
  n.bits_.d = v;
  return n;
}
Number Number::Double(double v) {
  Number n;
  n.type_ = Type::Double;
  n.bits_.d = v;
  return n;
}

bool Number::isUnsigned() const {
  return type_ == Type::UInt16 || type_ == Type::UInt32 || type_ == Type::UInt64;
}

bool Number::boolValue() const {
  if (isFloatingPoint()) return bits_.d != 0;
  return bits_.u != 0;
}

int64_t Number::int64Value() const {
  if (isFloatingPoint()) return SaturatingCast<int64_t>(bits_.d);
  return bits_.i;  // unsigned values wrap, as in C
}

int32_t Number::intValue() const {
  if (isFloatingPoint()) return SaturatingCast<int32_t>(bits_.d);
  return static_cast<int32_t>(bits_.i);
}

uint64_t Number::uint64Value() const {
  if (isFloatingPoint()) {
    if (bits_.d < 0) return static_cast<uint64_t>(SaturatingCast<int64_t>(bits_.d));
    return SaturatingCast<uint64_t>(bits_.d);
  }
  return bits_.u;
}

uint32_t Number::uint32Value() const { return static_cast<uint32_t>(uint64Value()); }

double Number::doubleValue() const {
  if (isFloatingPoint()) return bits_.d;
  if (isUnsigned()) return static_cast<double>(bits_.u);
  return static_cast<double>(bits_.i);
}

namespace {

// An integral number as a signed 128-bit value, so that every stored integer
// compares exactly with every other.
__int128 Wide(const Number& n) {
  if (n.isUnsigned()) return static_cast<__int128>(n.uint64Value());
  return static_cast<__int128>(n.int64Value());
}

// Whether a double holds an integer in [-2^63, 2^64); sets `out` to it.
bool IntegralDouble(double d, __int128* out) {
  if (!(d >= -9223372036854775808.0 && d < 18446744073709551616.0)) return false;
  if (std::trunc(d) != d) return false;
  *out = d < 0 ? static_cast<__int128>(static_cast<int64_t>(d))
               : static_cast<__int128>(static_cast<uint64_t>(d));
  return true;
}

}  // namespace

bool Number::operator==(const Number& other) const {
  const bool fa = isFloatingPoint(), fb = other.isFloatingPoint();
  if (!fa && !fb) return Wide(*this) == Wide(other);
  if (fa && fb) {
    // NaN equals NaN so that equality stays reflexive for hashed containers.
    if (std::isnan(bits_.d) && std::isnan(other.bits_.d)) return true;
    return bits_.d == other.bits_.d;
  }
  const Number& f = fa ? *this : other;
  const Number& i = fa ? other : *this;
  __int128 w;
  return IntegralDouble(f.bits_.d, &w) && w == Wide(i);
}

size_t Number::hash() const {
  // Integral values hash by their exact integer, whatever their stored type,
  // so that 1, 1.0 and true hash alike.
  __int128 w;
  if (!isFloatingPoint()) {
    w = Wide(*this);
  } else if (!IntegralDouble(bits_.d, &w)) {
    return HashDouble(bits_.d);
  }
  const uint64_t lo = static_cast<uint64_t>(w);
  const uint64_t hi = static_cast<uint64_t>(w >> 64);
  return Mix(lo ^ (hi * 0x9ddfea08eb382d69ull));
}

std::string Number::description() const {
  char buf[32];
  switch (type_) {
    case Type::Float:
      return ShortestFloat(static_cast<float>(bits_.d));
    case Type::Double:
      return ShortestDouble(bits_.d);
    case Type::UInt16:
    case Type::UInt32:
    case Type::UInt64: {
      auto r = std::to_chars(buf, buf + sizeof buf, bits_.u);
      return std::string(buf, r.ptr);
    }
    default: {
      auto r = std::to_chars(buf, buf + sizeof buf, bits_.i);
      return std::string(buf, r.ptr);
    }
  }
}

// ---------------------------------------------------------------------------
// Date

Date Date::Now() {
  using namespace std::chrono;
  const double unix =
      duration<double>(system_clock::now().time_since_epoch()).count();
  return Date{unix - kUnixEpochOffset};
}

namespace {

std::string DescribeDate(const Date& d) {
  const double unix = std::floor(d.unixTime());
  // Years far outside the calendar's range print as the raw number.
  if (!(unix > -6.7e10 && unix < 2.5e11)) return ShortestDouble(d.secondsSinceReferenceDate);
  const time_t t = static_cast<time_t>(unix);
  struct tm tm;
  if (!gmtime_r(&t, &tm)) return ShortestDouble(d.secondsSinceReferenceDate);
  char buf[64];
  int n = std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d +0000", tm.tm_year + 1900,
                        tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return std::string(buf, n);
}

}  // namespace

// ---------------------------------------------------------------------------
// URL

namespace {

bool IsSchemeStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsSchemeChar(char c) {
  return IsSchemeStart(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}
bool IsHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}
// Characters that may appear literally in a URL (RFC 3986 reserved and
// unreserved, plus '%' introducing an escape).
bool IsURLChar(unsigned char c) {
  if (c <= 0x20 || c >= 0x7f) return false;
  switch (c) {
    case '"': case '<': case '>': case '\\': case '^': case '`': case '{': case '|': case '}':
      return false;
    default:
      return true;
  }
}
// Characters a path keeps unescaped in a file URL.
bool IsPathChar(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::strchr("-._~/!$&'()*+,;=:@", c) != nullptr && c != 0;
}

std::string PercentDecode(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size() && IsHex(s[i + 1]) && IsHex(s[i + 2])) {
      out += static_cast<char>(HexValue(s[i + 1]) * 16 + HexValue(s[i + 2]));
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out;
}

}  // namespace

std::optional<URL> URL::WithString(std::string_view s) {
  if (s.empty() || !IsSchemeStart(s[0])) return std::nullopt;
  size_t i = 1;
  while (i < s.size() && IsSchemeChar(s[i])) ++i;
  if (i >= s.size() || s[i] != ':') return std::nullopt;
  for (size_t j = 0; j < s.size(); ++j) {
    const unsigned char c = static_cast<unsigned char>(s[j]);
    if (!IsURLChar(c)) return std::nullopt;
    if (c == '%' && !(j + 2 < s.size() && IsHex(s[j + 1]) && IsHex(s[j + 2]))) return std::nullopt;
  }
  return URL(std::string(s));
}

URL URL::FileURLWithPath(std::string_view absolutePath) {
  std::string path(absolutePath);
  if (path.empty() || path[0] != '/') {
    std::error_code ec;
    auto cwd = std::filesystem::current_path(ec);
    path = ((ec ? std::filesystem::path("/") : cwd) / path).string();
  }
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out = "file://";
  out.reserve(out.size() + path.size());
  for (unsigned char c : path) {
    if (IsPathChar(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return URL(std::move(out));
}

std::string URL::scheme() const {
  const size_t colon = string_.find(':');
  return colon == std::string::npos ? std::string() : string_.substr(0, colon);
}

bool URL::isFileURL() const {
  const std::string s = scheme();
  return s.size() == 4 && (s[0] | 0x20) == 'f' && (s[1] | 0x20) == 'i' && (s[2] | 0x20) == 'l' &&
         (s[3] | 0x20) == 'e';
}

std::string URL::path() const {
  const size_t colon = string_.find(':');
  if (colon == std::string::npos) return std::string();
  std::string_view rest = std::string_view(string_).substr(colon + 1);
  if (rest.substr(0, 2) == "//") {
    rest.remove_prefix(2);
    const size_t slash = rest.find_first_of("/?#");
    rest.remove_prefix(slash == std::string_view::npos ? rest.size() : slash);
  }
  const size_t end = rest.find_first_of("?#");
  if (end != std::string_view::npos) rest = rest.substr(0, end);
  return PercentDecode(rest);
}

// ---------------------------------------------------------------------------
// Error

std::string Error::localizedDescription() const {
  if (userInfo) {
    auto it = userInfo->find("NSLocalizedDescription");
    if (it != userInfo->end() && it->second.string()) return *it->second.string();
  }
  return "The operation couldn't be completed. (" + domain + " error " + std::to_string(code) +
         ".)";
}

bool Error::operator==(const Error& other) const {
  if (domain != other.domain || code != other.code) return false;
  if (!userInfo || !other.userInfo) return !userInfo && !other.userInfo;
  return userInfo == other.userInfo || *userInfo == *other.userInfo;
}

// ---------------------------------------------------------------------------
// Value storage

struct Value::Storage {
  using Payload = std::variant<std::monostate, Number, std::string, Bytes, Date, URL, Array,
                               Dictionary, Error, Point, Size, Rect, ObjectRef>;
  Kind kind;
  Payload payload;

  Storage(Kind k, Payload p) : kind(k), payload(std::move(p)) {}
};

namespace {

// Private storage type is passed in as `S` by the members that may name it.
// The storage object itself is not const (only the pointer to it is), so a
// sole owner may later mutate it in place (copy-on-write).
template <class S, class T>
std::shared_ptr<const S> MakeStorage(Value::Kind kind, T&& v) {
  return std::make_shared<S>(kind, std::forward<T>(v));
}

}  // namespace

Value::Value() = default;

// The shared null and boolean storages are never destroyed: threads that
// outlive main (message readers, the pool) still make values at exit.
Value Value::Null() {
  static const std::shared_ptr<const Storage>& kNull =
      *new std::shared_ptr<const Storage>(MakeStorage<Storage>(Kind::Null, std::monostate{}));
  Value v;
  v.storage_ = kNull;
  return v;
}

Value::Value(const Number& n) : storage_(MakeStorage<Storage>(Kind::Number, n)) {}

Value::Value(bool b) {
  static const std::shared_ptr<const Storage>& kTrue =
      *new std::shared_ptr<const Storage>(MakeStorage<Storage>(Kind::Number, Number::Bool(true)));
  static const std::shared_ptr<const Storage>& kFalse =
      *new std::shared_ptr<const Storage>(MakeStorage<Storage>(Kind::Number, Number::Bool(false)));
  storage_ = b ? kTrue : kFalse;
}

Value::Value(int v) : Value(Number::Int32(v)) {}
Value::Value(unsigned v) : Value(Number::UInt32(v)) {}
Value::Value(int64_t v) : Value(Number::Int64(v)) {}
Value::Value(uint64_t v) : Value(Number::UInt64(v)) {}
Value::Value(long long v) : Value(Number::Int64(static_cast<int64_t>(v))) {}
Value::Value(unsigned long long v) : Value(Number::UInt64(static_cast<uint64_t>(v))) {}
Value::Value(float v) : Value(Number::Float(v)) {}
Value::Value(double v) : Value(Number::Double(v)) {}

Value::Value(const char* s) {
  if (s) storage_ = MakeStorage<Storage>(Kind::String, std::string(s));
}
Value::Value(std::string s) : storage_(MakeStorage<Storage>(Kind::String, std::move(s))) {}
Value::Value(std::string_view s) : storage_(MakeStorage<Storage>(Kind::String, std::string(s))) {}
Value::Value(Bytes data) : storage_(MakeStorage<Storage>(Kind::Data, std::move(data))) {}
Value::Value(const Date& d) : storage_(MakeStorage<Storage>(Kind::Date, d)) {}
Value::Value(const URL& u) : storage_(MakeStorage<Storage>(Kind::URL, u)) {}
Value::Value(Array a) : storage_(MakeStorage<Storage>(Kind::Array, std::move(a))) {}
Value::Value(Dictionary d) : storage_(MakeStorage<Storage>(Kind::Dictionary, std::move(d))) {}
Value::Value(const Error& e) : storage_(MakeStorage<Storage>(Kind::Error, e)) {}
Value::Value(const Point& p) : storage_(MakeStorage<Storage>(Kind::Point, p)) {}
Value::Value(const Size& s) : storage_(MakeStorage<Storage>(Kind::Size, s)) {}
Value::Value(const Rect& r) : storage_(MakeStorage<Storage>(Kind::Rect, r)) {}
Value::Value(ObjectRef o) {
  if (o) storage_ = MakeStorage<Storage>(Kind::Object, std::move(o));
}

Value Value::DataFrom(const void* bytes, size_t length) {
  const uint8_t* p = static_cast<const uint8_t*>(bytes);
  return Value(length ? Bytes(p, p + length) : Bytes());
}

Value::Kind Value::kind() const { return storage_ ? storage_->kind : Kind::Nil; }

#define KX_VALUE_ACCESSOR(name, Type)                       \
  const Type* Value::name() const {                         \
    return storage_ ? std::get_if<Type>(&storage_->payload) \
                    : nullptr;                              \
  }
KX_VALUE_ACCESSOR(number, Number)
KX_VALUE_ACCESSOR(string, std::string)
KX_VALUE_ACCESSOR(data, Value::Bytes)
KX_VALUE_ACCESSOR(date, Date)
KX_VALUE_ACCESSOR(url, URL)
KX_VALUE_ACCESSOR(array, Array)
KX_VALUE_ACCESSOR(dictionary, Dictionary)
KX_VALUE_ACCESSOR(error, Error)
KX_VALUE_ACCESSOR(point, Point)
KX_VALUE_ACCESSOR(size, Size)
KX_VALUE_ACCESSOR(rect, Rect)
KX_VALUE_ACCESSOR(object, ObjectRef)
#undef KX_VALUE_ACCESSOR

namespace {

// Copy-on-write: storage shared with another Value is copied before it is
// handed out for mutation. The storage is created const-qualified only as far
// as the pointer type goes; the object itself is not const, so writing through
// it once we are its sole owner is well defined.
template <class T, class StoragePtr>
T* MutableContainer(StoragePtr& storage, Value::Kind kind) {
  using S = std::remove_const_t<typename StoragePtr::element_type>;
  if (!storage) {
    storage = std::make_shared<S>(kind, T());
  } else if (storage->kind != kind) {
    return nullptr;
  } else if (storage.use_count() > 1) {
    storage = std::make_shared<S>(kind, std::get<T>(storage->payload));
  } else {
    // We are the sole owner, but a former co-owner on another thread may
    // have read the storage just before dropping its reference. use_count()
    // is a relaxed load; copying the pointer is an acquire-release increment
    // on the same count, which orders those reads before our writes.
    StoragePtr probe = storage;
  }
  auto* s = const_cast<S*>(storage.get());
  return &std::get<T>(s->payload);
}

}  // namespace

Array* Value::mutableArray() { return MutableContainer<Array>(storage_, Kind::Array); }

Dictionary* Value::mutableDictionary() {
  return MutableContainer<Dictionary>(storage_, Kind::Dictionary);
}

Value Value::operator[](std::string_view key) const {
  const Dictionary* d = dictionary();
  if (!d) return Value();
  auto it = d->find(key);
  return it == d->end() ? Value() : it->second;
}

Value Value::at(size_t index) const {
  const Array* a = array();
  return a && index < a->size() ? (*a)[index] : Value();
}

size_t Value::count() const {
  if (const Array* a = array()) return a->size();
  if (const Dictionary* d = dictionary()) return d->size();
  if (const Bytes* b = data()) return b->size();
  return 0;
}

bool Value::operator==(const Value& other) const {
  if (storage_ == other.storage_) return true;
  const Kind k = kind();
  if (k != other.kind()) return false;
  switch (k) {
    case Kind::Nil:
    case Kind::Null:
      return true;
    case Kind::Object: {
      const ObjectRef& a = *object();
      const ObjectRef& b = *other.object();
      return a == b || a->isEqual(*b);
    }
    default:
      return storage_->payload == other.storage_->payload;
  }
}

size_t Value::hash() const {
  const Kind k = kind();
  const size_t seed = static_cast<size_t>(k) * kHashSeed;
  switch (k) {
    case Kind::Nil:
    case Kind::Null:
      return seed;
    case Kind::Number:
      return number()->hash();
    case Kind::String:
      return Combine(seed, HashBytes(*string()));
    case Kind::Data: {
      const Bytes& b = *data();
      return Combine(seed, HashBytes(std::string_view(reinterpret_cast<const char*>(b.data()),
                                                      b.size())));
    }
    case Kind::Date:
      return Combine(seed, HashDouble(date()->secondsSinceReferenceDate));
    case Kind::URL:
      return Combine(seed, HashBytes(url()->absoluteString()));
    case Kind::Array: {
      size_t h = seed;
      for (const Value& v : *array()) h = Combine(h, v.hash());
      return h;
    }
    case Kind::Dictionary: {
      size_t h = seed;
      for (const auto& [key, v] : *dictionary()) h = Combine(Combine(h, HashBytes(key)), v.hash());
      return h;
    }
    case Kind::Error: {
      const Error& e = *error();
      return Combine(Combine(seed, HashBytes(e.domain)), Mix(static_cast<uint64_t>(e.code)));
    }
    case Kind::Point:
      return Combine(Combine(seed, HashDouble(point()->x)), HashDouble(point()->y));
    case Kind::Size:
      return Combine(Combine(seed, HashDouble(size()->width)), HashDouble(size()->height));
    case Kind::Rect: {
      const Rect& r = *rect();
      size_t h = Combine(seed, HashDouble(r.origin.x));
      h = Combine(h, HashDouble(r.origin.y));
      h = Combine(h, HashDouble(r.size.width));
      return Combine(h, HashDouble(r.size.height));
    }
    case Kind::Object:
      return (*object())->hash();
  }
  return seed;
}

// ---------------------------------------------------------------------------
// Description in the old-style property-list manner.

namespace {

// Characters that an old-style property list writes without quotes.
bool IsBareChar(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '_' || c == '$' || c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

void AppendQuotedIfNeeded(std::string& out, std::string_view s) {
  bool bare = !s.empty();
  for (unsigned char c : s) {
    if (!IsBareChar(c)) {
      bare = false;
      break;
    }
  }
  if (bare) {
    out += s;
    return;
  }
  out += '"';
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\%03o", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

void AppendIndent(std::string& out, int level) { out.append(static_cast<size_t>(level) * 4, ' '); }

std::string DescribeGeometry(double a, double b) {
  return "{" + ShortestDouble(a) + ", " + ShortestDouble(b) + "}";
}

std::string DescribeData(const Value::Bytes& b) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "{length = " + std::to_string(b.size()) + ", bytes = 0x";
  auto hex = [&](uint8_t c) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  };
  // Short data prints whole; longer data prints its first 16 and last 8
  // bytes in groups of four.
  if (b.size() <= 24) {
    for (uint8_t c : b) hex(c);
    out += '}';
    return out;
  }
  for (size_t i = 0; i < 16; ++i) {
    hex(b[i]);
    if (i % 4 == 3) out += ' ';
  }
  out += "... ";
  for (size_t i = b.size() - 8; i < b.size(); ++i) {
    hex(b[i]);
    if ((i - (b.size() - 8)) % 4 == 3) out += ' ';
  }
  out += '}';
  return out;
}

void Describe(std::string& out, const Value& v, int level);

std::string DescribeError(const Error& e) {
  std::string out = "Error Domain=" + e.domain + " Code=" + std::to_string(e.code) + " \"" +
                    e.localizedDescription() + "\"";
  if (e.userInfo && !e.userInfo->empty()) {
    out += " UserInfo={";
    bool first = true;
    for (const auto& [key, value] : *e.userInfo) {
      if (!first) out += ", ";
      first = false;
      out += key;
      out += '=';
      out += value.description();
    }
    out += '}';
  }
  return out;
}

// The description of a leaf (non-container) value.
std::string LeafDescription(const Value& v) {
  switch (v.kind()) {
    case Value::Kind::Nil: return "(null)";
    case Value::Kind::Null: return "<null>";
    case Value::Kind::Number: return v.number()->description();
    case Value::Kind::String: return *v.string();
    case Value::Kind::Data: return DescribeData(*v.data());
    case Value::Kind::Date: return DescribeDate(*v.date());
    case Value::Kind::URL: return v.url()->absoluteString();
    case Value::Kind::Error: return DescribeError(*v.error());
    case Value::Kind::Point: return DescribeGeometry(v.point()->x, v.point()->y);
    case Value::Kind::Size: return DescribeGeometry(v.size()->width, v.size()->height);
    case Value::Kind::Rect:
      return "{" + DescribeGeometry(v.rect()->origin.x, v.rect()->origin.y) + ", " +
             DescribeGeometry(v.rect()->size.width, v.rect()->size.height) + "}";
    case Value::Kind::Object: return (*v.object())->description();
    case Value::Kind::Array:
    case Value::Kind::Dictionary: break;
  }
  return std::string();
}

// A container at nesting `level` starts with its own indentation, and so
// does every nested container after its parent's indentation; that doubling
// is how the platform prints nested collections.
void Describe(std::string& out, const Value& v, int level) {
  if (const Array* a = v.array()) {
    AppendIndent(out, level);
    out += "(\n";
    for (size_t i = 0; i < a->size(); ++i) {
      AppendIndent(out, level + 1);
      Describe(out, (*a)[i], level + 1);
      out += i + 1 < a->size() ? ",\n" : "\n";
    }
    AppendIndent(out, level);
    out += ')';
  } else if (const Dictionary* d = v.dictionary()) {
    AppendIndent(out, level);
    out += "{\n";
    for (const auto& [key, value] : *d) {
      AppendIndent(out, level + 1);
      AppendQuotedIfNeeded(out, key);
      out += " = ";
      Describe(out, value, level + 1);
      out += ";\n";
    }
    AppendIndent(out, level);
    out += '}';
  } else {
    AppendQuotedIfNeeded(out, LeafDescription(v));
  }
}

}  // namespace

std::string Value::description() const {
  if (kind() != Kind::Array && kind() != Kind::Dictionary) return LeafDescription(*this);
  std::string out;
  Describe(out, *this, 0);
  return out;
}

Dictionary MakeDictionary(std::initializer_list<std::pair<const std::string, Value>> entries) {
  return Dictionary(entries.begin(), entries.end());
}

}  // namespace kx
