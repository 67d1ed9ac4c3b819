// Field tables: the keyed coding shared by the feedback records.
//
// Every record class lists its archived fields once, in encoding order, as
// a table of (key, getter, setter, options). Encoding walks the table and
// writes each field; decoding walks it and reads each field back through its
// setter. A table holds only the class's own fields: Coded<Self, Base> runs
// Base's coding first, so a record carries its ancestors' keys and then its
// own.
//
// Field kinds and their coding:
//   bool                  boolean
//   int32_t, uint32_t     32-bit integer (an unsigned value travels as its
//                         two's-complement bit pattern and comes back intact)
//   int64_t, uint64_t     integer, likewise
//   double                double; with kAsInteger an integer, truncated
//                         toward zero on the way in (TruncateToInt64)
//   std::optional<X>      object, X one of: std::string, URL, data, Array,
//                         Dictionary, Number, or a list of records of one
//                         class (std::vector<std::shared_ptr<R>>, where a
//                         null entry travels as nil)
// An absent optional is written as nil, so its key is present; with
// kOmitWhenEmpty neither an absent nor an empty value leaves a key.
//
// Decoding never fails on a missing key: objects come back absent, numbers
// 0, booleans false. An object field checks the class of what it finds. A
// restricted field (the default) holding another class fails the whole
// unarchiver, as secure decoding would; an unrestricted field
// (kUnrestricted) holding something it cannot represent is logged and left
// absent, and the record decodes otherwise.
//
// Invariant: the generic containers of a record (Array, Dictionary fields)
// never hold a coded record. Records reach each other only through record
// lists, whose element classes hold no containers, so a decoded graph of
// records has no cycles and is freed with its root; a container that holds
// a record is refused as a class mismatch.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "feedback/feedback_time.h"
#include "kx/value.h"
#include "kx/feedback_coding.h"
#include "support/archivable.h"
#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"

namespace kx {

enum FieldOption : unsigned {
  kFieldDefault = 0,
  kUnrestricted = 1u << 0,   // decoded without a class restriction
  kOmitWhenEmpty = 1u << 1,  // no key for an absent or empty value
  kAsInteger = 1u << 2,      // a double written and read as a whole number
};

namespace field_coding {

template <class M>
struct MemberClass;
template <class C, class F>
struct MemberClass<F C::*> {
  using type = C;
};

template <class X>
struct IsOptional : std::false_type {};
template <class X>
struct IsOptional<std::optional<X>> : std::true_type {};

template <class X>
struct RecordList : std::false_type {};
template <class R>
struct RecordList<std::vector<std::shared_ptr<R>>> : std::true_type {
  using Record = R;
};

template <class X>
inline constexpr bool kDependentFalse = false;

template <class X>
std::string_view ClassNameOf() {
  namespace ac = archive_class;
  if constexpr (std::is_same_v<X, std::string>) return ac::kString;
  else if constexpr (std::is_same_v<X, URL>) return ac::kURL;
  else if constexpr (std::is_same_v<X, Value::Bytes>) return ac::kData;
  else if constexpr (std::is_same_v<X, Array> || RecordList<X>::value) return ac::kArray;
  else if constexpr (std::is_same_v<X, Dictionary>) return ac::kDictionary;
  else if constexpr (std::is_same_v<X, Number>) return ac::kNumber;
  else static_assert(kDependentFalse<X>, "no archive class for this field type");
}

// True when `value` is or contains (at any depth) a field-coded record.
bool HoldsCodedRecord(const Value& value);
// The object under `key`, restricted to `className` unless kUnrestricted.
Value DecodeFieldObject(KeyedUnarchiver& coder, std::string_view key, std::string_view className,
                        unsigned options);
// Handles an object of the wrong class under `key` (see the file comment).
void RejectFieldValue(KeyedUnarchiver& coder, std::string_view key, std::string_view className,
                      const Value& found, unsigned options);

template <class X>
Value ToValue(const X& x) {
  if constexpr (RecordList<X>::value) {
    Array out;
    out.reserve(x.size());
    for (const auto& record : x) out.emplace_back(ObjectRef(record));  // null gives nil
    return Value(std::move(out));
  } else {
    return Value(x);
  }
}

template <class X>
std::optional<X> FromValue(const Value& v) {
  if constexpr (std::is_same_v<X, std::string>) {
    if (const std::string* s = v.string()) return *s;
  } else if constexpr (std::is_same_v<X, URL>) {
    if (const URL* u = v.url()) return *u;
  } else if constexpr (std::is_same_v<X, Value::Bytes>) {
    if (const Value::Bytes* d = v.data()) return *d;
  } else if constexpr (std::is_same_v<X, Number>) {
    if (const Number* n = v.number()) return *n;
  } else if constexpr (std::is_same_v<X, Array>) {
    if (v.array() && !HoldsCodedRecord(v)) return *v.array();
  } else if constexpr (std::is_same_v<X, Dictionary>) {
    if (v.dictionary() && !HoldsCodedRecord(v)) return *v.dictionary();
  } else if constexpr (RecordList<X>::value) {
    using R = typename RecordList<X>::Record;
    const Array* elements = v.array();
    if (!elements) return std::nullopt;
    X out;
    out.reserve(elements->size());
    for (const Value& element : *elements) {
      std::shared_ptr<R> record = element.objectAs<R>();
      if (!record && !element.isNil()) return std::nullopt;
      out.push_back(std::move(record));
    }
    return out;
  }
  return std::nullopt;
}

template <class X>
bool IsEmpty(const X& x) {
  if constexpr (requires { x.empty(); }) return x.empty();
  else return false;
}

template <class V>
void Encode(KeyedArchiver& coder, std::string_view key, unsigned options, const V& v) {
  if constexpr (std::is_same_v<V, bool>) {
    coder.encodeBool(v, key);
  } else if constexpr (std::is_same_v<V, int32_t> || std::is_same_v<V, uint32_t>) {
    coder.encodeInt32(static_cast<int32_t>(v), key);
  } else if constexpr (std::is_same_v<V, int64_t> || std::is_same_v<V, uint64_t>) {
    coder.encodeInt64(static_cast<int64_t>(v), key);
  } else if constexpr (std::is_same_v<V, double>) {
    if (options & kAsInteger) {
      coder.encodeInt64(TruncateToInt64(v), key);
    } else {
      coder.encodeDouble(v, key);
    }
  } else {
    static_assert(IsOptional<V>::value, "unsupported field type");
    if ((options & kOmitWhenEmpty) && (!v || IsEmpty(*v))) return;
    coder.encodeObject(v ? ToValue(*v) : Value(), key);
  }
}

template <class V>
V Decode(KeyedUnarchiver& coder, std::string_view key, unsigned options) {
  if constexpr (std::is_same_v<V, bool>) {
    return coder.decodeBool(key);
  } else if constexpr (std::is_same_v<V, int32_t> || std::is_same_v<V, uint32_t>) {
    return static_cast<V>(coder.decodeInt32(key));
  } else if constexpr (std::is_same_v<V, int64_t> || std::is_same_v<V, uint64_t>) {
    return static_cast<V>(coder.decodeInt64(key));
  } else if constexpr (std::is_same_v<V, double>) {
    if (options & kAsInteger) return static_cast<double>(coder.decodeInt64(key));
    return coder.decodeDouble(key);
  } else {
    static_assert(IsOptional<V>::value, "unsupported field type");
    using X = typename V::value_type;
    Value found = DecodeFieldObject(coder, key, ClassNameOf<X>(), options);
    if (found.isNil()) return std::nullopt;
    if (std::optional<X> x = FromValue<X>(found)) return x;
    RejectFieldValue(coder, key, ClassNameOf<X>(), found, options);
    return std::nullopt;
  }
}

}  // namespace field_coding

// One table row: the field read with `Getter` and restored with `Setter`
// (member functions of the same class) under `key`.
template <auto Getter, auto Setter>
constexpr auto Field(std::string_view key, unsigned options = kFieldDefault) {
  using T = typename field_coding::MemberClass<decltype(Setter)>::type;
  using V = std::remove_cvref_t<decltype((std::declval<const T&>().*Getter)())>;
  return FieldSpec<T>{
      key, options,
      [](const T& record, KeyedArchiver& coder, std::string_view k, unsigned o) {
        field_coding::Encode<V>(coder, k, o, (record.*Getter)());
      },
      [](T& record, KeyedUnarchiver& coder, std::string_view k, unsigned o) {
        (record.*Setter)(field_coding::Decode<V>(coder, k, o));
      }};
}

}  // namespace kx
