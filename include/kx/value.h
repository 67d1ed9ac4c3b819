// The value model: property-list-like values that the whole library passes
// around (preferences, message info, additional result properties, archives).
//
// `kx::Value` is a small value type. It distinguishes an absent value (`nil`,
// the default) from the explicit null value, and numbers remember the C type
// they were stored with so that later code can tell a boolean from a 64-bit
// integer and a 16-bit integer from both. Arrays and dictionaries are shared
// immutable storage with copy-on-write, so copying a Value is cheap.
//
// Records that are not plain values (results, feedback, images...) derive from
// `kx::Object` and travel inside a Value as an object reference.
#pragma once

#include "kx/export.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx {

class Value;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value, std::less<>>;

// Base of every reference-counted record that can sit inside a Value.
class KX_EXPORT Object : public std::enable_shared_from_this<Object> {
 public:
  virtual ~Object();
  // The record's class name as the archives and descriptions spell it.
  virtual std::string className() const = 0;
  // "<ClassName: 0x...>" unless a record describes itself.
  virtual std::string description() const;
  // Identity unless a record defines its own equality.
  virtual bool isEqual(const Object& other) const;
  virtual size_t hash() const;
  // Base description as the platform's root object writes it.
  std::string baseDescription() const;
};
using ObjectRef = std::shared_ptr<Object>;

// A number that remembers its stored type.
class KX_EXPORT Number {
 public:
  enum class Type : uint8_t {
    Bool, Char, Int16, UInt16, Int32, UInt32, Int64, UInt64, Float, Double
  };

  Number() : Number(int64_t{0}) {}
  static Number Bool(bool v);
  static Number Char(int8_t v);
  static Number Int16(int16_t v);
  static Number UInt16(uint16_t v);
  static Number Int32(int32_t v);
  static Number UInt32(uint32_t v);
  static Number Int64(int64_t v);
  static Number UInt64(uint64_t v);
  static Number Float(float v);
  static Number Double(double v);
  explicit Number(int64_t v) : type_(Type::Int64) { bits_.i = v; }

  Type type() const { return type_; }
  bool isBool() const { return type_ == Type::Bool; }
  bool isFloatingPoint() const { return type_ == Type::Float || type_ == Type::Double; }
  bool isUnsigned() const;

  // Conversions follow C conversion rules from the stored type.
  bool boolValue() const;
  int32_t intValue() const;
  int64_t int64Value() const;
  uint32_t uint32Value() const;
  uint64_t uint64Value() const;
  double doubleValue() const;

  // Numeric equality across types (1 == 1.0 == true), like the platform.
  bool operator==(const Number& other) const;
  size_t hash() const;
  std::string description() const;

 private:
  Type type_;
  union {
    int64_t i;
    uint64_t u;
    double d;
  } bits_;
};

// Absolute time: seconds since 2001-01-01 00:00:00 UTC.
struct Date {
  double secondsSinceReferenceDate = 0;
  static Date Now();
  // Seconds between the Unix epoch and the reference date.
  static constexpr double kUnixEpochOffset = 978307200.0;
  double unixTime() const { return secondsSinceReferenceDate + kUnixEpochOffset; }
  bool operator==(const Date&) const = default;
};

// A URL kept as its absolute string. File URLs are "file://" plus a
// percent-encoded absolute path.
class KX_EXPORT URL {
 public:
  URL() = default;
  // Parses a string; nullopt when it is not a URL (no scheme).
  static std::optional<URL> WithString(std::string_view s);
  static URL FileURLWithPath(std::string_view absolutePath);
  const std::string& absoluteString() const { return string_; }
  std::string scheme() const;
  bool isFileURL() const;
  // Decoded path component ("/a b" for "file:///a%20b").
  std::string path() const;
  bool operator==(const URL&) const = default;

 private:
  explicit URL(std::string s) : string_(std::move(s)) {}
  std::string string_;
};

struct Point {
  double x = 0, y = 0;
  bool operator==(const Point&) const = default;
};
struct Size {
  double width = 0, height = 0;
  bool operator==(const Size&) const = default;
};
struct Rect {
  Point origin;
  Size size;
  bool operator==(const Rect&) const = default;
};

// An error value: domain, code and user info.
struct Error {
  std::string domain;
  int64_t code = 0;
  std::shared_ptr<const Dictionary> userInfo;  // may be null
  // The user info's "NSLocalizedDescription" when present, otherwise
  // "The operation couldn't be completed. (<domain> error <code>.)".
  std::string localizedDescription() const;
  bool operator==(const Error& other) const;
};

class KX_EXPORT Value {
 public:
  enum class Kind : uint8_t {
    Nil, Null, Number, String, Data, Date, URL, Array, Dictionary,
    Error, Point, Size, Rect, Object
  };
  using Bytes = std::vector<uint8_t>;

  Value();  // nil (absent)
  static Value Null();
  Value(const Number& n);
  Value(bool b);  // a boolean number
  Value(int v);   // Int32
  Value(unsigned v);  // UInt32
  Value(int64_t v);
  Value(uint64_t v);
  Value(long long v);           // Int64
  Value(unsigned long long v);  // UInt64
  Value(float v);
  Value(double v);
  Value(const char* s);  // nullptr gives nil
  Value(std::string s);
  Value(std::string_view s);
  Value(Bytes data);  // data
  Value(const Date& d);
  Value(const URL& u);
  Value(Array a);
  Value(Dictionary d);
  Value(const Error& e);
  Value(const Point& p);
  Value(const Size& s);
  Value(const Rect& r);
  Value(ObjectRef o);  // null pointer gives nil
  static Value DataFrom(const void* bytes, size_t length);

  Kind kind() const;
  bool isNil() const { return kind() == Kind::Nil; }
  bool isNull() const { return kind() == Kind::Null; }
  explicit operator bool() const { return !isNil(); }

  // Typed access: nullptr when the value is of another kind.
  const Number* number() const;
  const std::string* string() const;
  const Bytes* data() const;
  const Date* date() const;
  const URL* url() const;
  const Array* array() const;
  const Dictionary* dictionary() const;
  const Error* error() const;
  const Point* point() const;
  const Size* size() const;
  const Rect* rect() const;
  const ObjectRef* object() const;
  template <class T>
  std::shared_ptr<T> objectAs() const {
    const ObjectRef* o = object();
    return o ? std::dynamic_pointer_cast<T>(*o) : nullptr;
  }

  // Mutable access to containers, copying shared storage first. Turns a nil
  // value into an empty container of that kind; nullptr for other kinds.
  Array* mutableArray();
  Dictionary* mutableDictionary();

  // Dictionary convenience: nil when not a dictionary or key missing.
  Value operator[](std::string_view key) const;
  // Array convenience: nil when not an array or out of range.
  Value at(size_t index) const;
  // Number of entries of an array or dictionary, bytes of data, else 0.
  size_t count() const;

  // Deep value equality (objects by `isEqual`); numbers numerically, and a
  // NaN equals a NaN so that equality stays reflexive for hashed containers.
  bool operator==(const Value& other) const;
  // True when both hold the same storage (or both are nil), which implies
  // equality. Storage is immutable and copied before any change while it is
  // shared, so a value still identical to a kept copy has not changed since.
  bool isIdenticalTo(const Value& other) const { return storage_ == other.storage_; }
  size_t hash() const;
  // The platform's textual description: strings bare, numbers in decimal,
  // arrays "(\n    a,\n    b\n)", dictionaries "{\n    k = v;\n}" with keys
  // sorted, data "{length = n, bytes = 0x...}", dates "2001-01-01 00:00:00
  // +0000", nil "(null)", null "<null>".
  std::string description() const;

 private:
  struct Storage;
  std::shared_ptr<const Storage> storage_;  // null means nil
};

// A dictionary literal helper: MakeDictionary({{"k", 1}, {"s", "x"}}).
KX_EXPORT Dictionary MakeDictionary(std::initializer_list<std::pair<const std::string, Value>> entries);

}  // namespace kx

template <>
struct std::hash<kx::Value> {
  size_t operator()(const kx::Value& v) const { return v.hash(); }
};
