// KXProxyObject: a thin, read-only typed view over one dictionary of display
// data sent by the server search service (card sections, rows, buttons...).
//
// Nothing is copied into typed fields. Each card class answers its declared
// properties by key from the wrapped dictionary (see KXCardClasses.h for the
// generated accessors); the key-based path below serves everything else.
//
// Number handling, shared with the server properties of KXSearchResult:
// a number is delivered in the type it was stored with when that type is
// boolean, char, 32-bit, 64-bit, float or double. Any other stored type
// (16-bit, unsigned...) logs "Unsupported number type: <code>" at level 3 and
// delivers zero. A boolean is delivered and then also logged as unsupported
// with "B"; the type tests do not stop at the boolean case, and readers of
// the log rely on that line. Other values are delivered as stored.
//
// Threads: the dictionary is set at creation and replaced only through
// setDictionary; a view shared between threads must not be re-pointed.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kx/export.h"
#include "kx/value.h"

namespace kx::vantle {

// The number a caller receives for `number`, logging as described above.
KX_EXPORT Number DeliveredNumber(const Number& number);
// The value a getter delivers: numbers through DeliveredNumber, the rest
// unchanged (nil stays nil).
KX_EXPORT Value DeliveredValue(const Value& value);

// The key an operation name stands for: a getter's name is its key; a setter
// ("set" plus at least one character) drops "set" and a trailing ":" and
// lowercases the first character of what remains ("setTitle_maxlines:" gives
// "title_maxlines"; a one-character remainder is lowercased whole).
struct PropertyCall {
  bool isSetter = false;
  std::string key;
};
KX_EXPORT PropertyCall PropertyCallForName(std::string_view operationName);

// Conversions used by the typed accessors. Each returns absent (nil for the
// opaque image kind) when the stored value is of another kind, never a value
// of the wrong type.
KX_EXPORT std::optional<std::string> AsString(const Value& v);
// A URL value, or a string that parses as one.
KX_EXPORT std::optional<URL> AsURL(const Value& v);
// Images are opaque to the library: a dictionary, data, URL or object.
KX_EXPORT Value AsImage(const Value& v);
KX_EXPORT std::optional<Array> AsArray(const Value& v);
KX_EXPORT std::optional<Value::Bytes> AsData(const Value& v);
KX_EXPORT std::optional<bool> AsBoolean(const Value& v);
KX_EXPORT std::optional<int64_t> AsInteger(const Value& v);
KX_EXPORT std::optional<uint64_t> AsUInt64(const Value& v);
KX_EXPORT std::optional<uint32_t> AsUInt32(const Value& v);
KX_EXPORT std::optional<double> AsDouble(const Value& v);
KX_EXPORT std::optional<float> AsFloat(const Value& v);

}  // namespace kx::vantle

class KX_EXPORT KXProxyObject : public kx::Object {
 public:
  explicit KXProxyObject(kx::Dictionary dictionary = {});
  ~KXProxyObject() override;

  static std::shared_ptr<KXProxyObject> proxyObjectWithDictionary(kx::Dictionary dictionary);

  const kx::Dictionary& dictionary() const { return dictionary_; }
  void setDictionary(kx::Dictionary dictionary) { dictionary_ = std::move(dictionary); }

  // The dictionary's value for `key`; nil when absent.
  virtual kx::Value valueForUndefinedKey(std::string_view key) const;
  // Card objects are read-only views: storing does nothing.
  virtual void setValueForUndefinedKey(const kx::Value& value, std::string_view key);

  // The key-based path for properties without a typed accessor. A getter
  // returns DeliveredValue of the key's value; a setter stores `argument`
  // through setValueForUndefinedKey and returns nil.
  kx::Value forwardPropertyCall(std::string_view operationName,
                                const kx::Value& argument = {});

  std::string className() const override { return "KXProxyObject"; }

 private:
  kx::Dictionary dictionary_;
};
