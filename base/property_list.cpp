// Binary property lists through libplist, behind our own validator.
//
// libplist 2.2 keeps every integer as 64 unsigned bits and exposes dates
// only as whole seconds plus microseconds, so two facts cannot be read back
// through its interface: whether a stored integer was a negative 8-byte
// value or a 16-byte unsigned one, and a date's exact value. The validator
// reports both, in the document order in which the tree below is walked, and
// the decoder cross-checks each against what libplist returned.
//
// For writing, nodes that the creation interface cannot express (16-byte
// integers, exact dates) are made by parsing a one-object property list that
// we build byte by byte.
#include "base/property_list.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "base/bplist_validator.h"

namespace kx {

namespace {

struct PlistDeleter {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

void PutBigEndian(uint8_t* p, uint64_t v, size_t n) {
  for (size_t i = 0; i < n; ++i) p[n - 1 - i] = static_cast<uint8_t>(v >> (8 * i));
}

// Parses a property list holding one scalar object: `marker` followed by
// `payload`.
plist_t SingleObjectNode(uint8_t marker, const uint8_t* payload, size_t length) {
  uint8_t b[8 + 1 + 16 + 1 + 32] = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  size_t n = 8;
  b[n++] = marker;
  std::memcpy(b + n, payload, length);
  n += length;
  const size_t table = n;
  b[n++] = 8;  // the one object's offset
  uint8_t* trailer = b + n;
  std::memset(trailer, 0, 32);
  trailer[6] = 1;  // offset size
  trailer[7] = 1;  // reference size
  PutBigEndian(trailer + 8, 1, 8);
  PutBigEndian(trailer + 16, 0, 8);
  PutBigEndian(trailer + 24, table, 8);
  n += 32;
  plist_t node = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(b), static_cast<uint32_t>(n), &node);
  return node;
}

plist_t ExactDateNode(double seconds) {
  uint64_t bits;
  std::memcpy(&bits, &seconds, sizeof bits);
  uint8_t payload[8];
  PutBigEndian(payload, bits, 8);
  return SingleObjectNode(0x33, payload, 8);
}

plist_t WideUnsignedNode(uint64_t v) {
  uint8_t payload[16] = {};
  PutBigEndian(payload + 8, v, 8);
  return SingleObjectNode(0x14, payload, 16);
}

// Whether `s` is UTF-8 that libplist can convert: well formed, no NUL (its
// string interface is NUL-terminated).
bool IsStorableString(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == 0) return false;
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + len > s.size()) return false;
    for (size_t k = 1; k < len; ++k) {
      const unsigned char cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
        (cp >= 0xD800 && cp <= 0xDFFF)) {
      return false;
    }
    i += len;
  }
  return true;
}

const char* KindName(Value::Kind k) {
  switch (k) {
    case Value::Kind::Nil: return "an absent value";
    case Value::Kind::Null: return "null";
    case Value::Kind::URL: return "a URL";
    case Value::Kind::Error: return "an error";
    case Value::Kind::Point: return "a point";
    case Value::Kind::Size: return "a size";
    case Value::Kind::Rect: return "a rect";
    case Value::Kind::Object: return "an object";
    default: return "this value";
  }
}

class Encoder {
 public:
  // Returns the node, or null with `error_` set.
  plist_t Encode(const Value& v, size_t depth) {
    switch (v.kind()) {
      case Value::Kind::Number:
        return EncodeNumber(*v.number());
      case Value::Kind::String:
        if (!IsStorableString(*v.string())) return Fail("string is not valid UTF-8 without NUL");
        return plist_new_string(v.string()->c_str());
      case Value::Kind::Data: {
        const Value::Bytes& b = *v.data();
        return plist_new_data(reinterpret_cast<const char*>(b.data()), b.size());
      }
      case Value::Kind::Date: {
        const double d = v.date()->secondsSinceReferenceDate;
        if (!std::isfinite(d) || std::fabs(d) > 1e15) return Fail("date out of range");
        return ExactDateNode(d);
      }
      case Value::Kind::Array: {
        if (depth >= kMaxPropertyListDepth) return Fail("nesting too deep");
        PlistPtr array(plist_new_array());
        for (const Value& item : *v.array()) {
          plist_t child = Encode(item, depth + 1);
          if (!child) return nullptr;
          plist_array_append_item(array.get(), child);
        }
        return array.release();
      }
      case Value::Kind::Dictionary: {
        if (depth >= kMaxPropertyListDepth) return Fail("nesting too deep");
        PlistPtr dict(plist_new_dict());
        for (const auto& [key, item] : *v.dictionary()) {
          if (!IsStorableString(key)) return Fail("key is not valid UTF-8 without NUL");
          plist_t child = Encode(item, depth + 1);
          if (!child) return nullptr;
          plist_dict_set_item(dict.get(), key.c_str(), child);
        }
        return dict.release();
      }
      default:
        return Fail(std::string(KindName(v.kind())) + " cannot be stored in a property list");
    }
  }

  const std::string& error() const { return error_; }

 private:
  plist_t Fail(std::string reason) {
    error_ = std::move(reason);
    return nullptr;
  }

  plist_t EncodeNumber(const Number& n) {
    switch (n.type()) {
      case Number::Type::Bool:
        return plist_new_bool(n.boolValue());
      case Number::Type::Float:
      case Number::Type::Double:
        return plist_new_real(n.doubleValue());
      case Number::Type::UInt64:
        // Above the signed range the 8-byte form would read back negative.
        if (n.uint64Value() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
          return WideUnsignedNode(n.uint64Value());
        }
        return plist_new_uint(n.uint64Value());
      default:
        // Negative values travel as 8-byte two's complement.
        return plist_new_uint(static_cast<uint64_t>(n.int64Value()));
    }
  }

  std::string error_;
};

class Decoder {
 public:
  explicit Decoder(const BinaryPropertyListScan& scan) : scan_(scan) {}

  // Returns nil with `error_` set on failure.
  Value Decode(plist_t node) {
    switch (plist_get_node_type(node)) {
      case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return Value(b != 0);
      }
      case PLIST_UINT: {
        uint64_t bits = 0;
        plist_get_uint_val(node, &bits);
        if (nextInteger_ >= scan_.integers.size()) return Fail();
        const BinaryPropertyListScan::Integer& i = scan_.integers[nextInteger_++];
        if (i.bits != bits) return Fail();
        if (i.wide && bits > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
          return Value(Number::UInt64(bits));
        }
        return Value(Number::Int64(static_cast<int64_t>(bits)));
      }
      case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return Value(Number::Double(d));
      }
      case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        if (nextDate_ >= scan_.dates.size()) return Fail();
        const double exact = scan_.dates[nextDate_++];
        // libplist's whole seconds truncate toward zero.
        if (std::fabs(exact - sec) >= 1.0) return Fail();
        return Value(Date{exact});
      }
      case PLIST_STRING: {
        uint64_t length = 0;
        const char* s = plist_get_string_ptr(node, &length);
        return s ? Value(std::string(s, length)) : Value(std::string());
      }
      case PLIST_DATA: {
        uint64_t length = 0;
        const char* p = plist_get_data_ptr(node, &length);
        return Value::DataFrom(p, p ? length : 0);
      }
      case PLIST_ARRAY: {
        const uint32_t n = plist_array_get_size(node);
        Array array;
        array.reserve(n);
        for (uint32_t i = 0; i < n; ++i) {
          Value item = Decode(plist_array_get_item(node, i));
          if (item.isNil()) return Value();
          array.push_back(std::move(item));
        }
        return Value(std::move(array));
      }
      case PLIST_DICT: {
        Dictionary dict;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        std::unique_ptr<void, decltype(&std::free)> iter(it, &std::free);
        for (;;) {
          char* key = nullptr;
          plist_t child = nullptr;
          plist_dict_next_item(node, it, &key, &child);
          std::unique_ptr<char, decltype(&std::free)> ownedKey(key, &std::free);
          if (!child) break;
          Value item = Decode(child);
          if (item.isNil()) return Value();
          // A repeated key keeps its last value.
          dict.insert_or_assign(std::string(key ? key : ""), std::move(item));
        }
        return Value(std::move(dict));
      }
      default:
        return Fail();
    }
  }

  bool consumedAll() const {
    return nextInteger_ == scan_.integers.size() && nextDate_ == scan_.dates.size();
  }

 private:
  Value Fail() { return Value(); }

  const BinaryPropertyListScan& scan_;
  size_t nextInteger_ = 0;
  size_t nextDate_ = 0;
};

}  // namespace

std::vector<uint8_t> EncodeBinaryPropertyList(const Value& value, std::string* error) {
  Encoder encoder;
  PlistPtr root(encoder.Encode(value, 0));
  if (!root) {
    if (error) *error = encoder.error().empty() ? "could not encode" : encoder.error();
    return {};
  }
  char* bin = nullptr;
  uint32_t length = 0;
  plist_to_bin(root.get(), &bin, &length);
  if (!bin || length == 0) {
    if (bin) plist_to_bin_free(bin);
    if (error) *error = "could not encode";
    return {};
  }
  std::vector<uint8_t> out(reinterpret_cast<uint8_t*>(bin), reinterpret_cast<uint8_t*>(bin) + length);
  plist_to_bin_free(bin);
  if (out.size() > kMaxPropertyListBytes) {
    if (error) *error = "property list too large";
    return {};
  }
  if (error) error->clear();
  return out;
}

PropertyListResult DecodeBinaryPropertyList(std::span<const uint8_t> bytes) {
  BinaryPropertyListScan scan;
  std::string reason =
      ValidateBinaryPropertyList(bytes, kMaxPropertyListBytes, kMaxPropertyListDepth, &scan);
  if (!reason.empty()) return {Value(), std::move(reason)};
  plist_t raw = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()),
                 &raw);
  PlistPtr root(raw);
  if (!root) return {Value(), "malformed binary property list"};
  Decoder decoder(scan);
  Value value = decoder.Decode(root.get());
  if (value.isNil() || !decoder.consumedAll()) {
    return {Value(), "malformed binary property list"};
  }
  return {std::move(value), {}};
}

}  // namespace kx
