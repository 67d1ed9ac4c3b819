// libplist as the reference our binary property-list codec is checked
// against, in tests and in the differential fuzz target.
//
// libplist 2.2 keeps every integer as 64 bits without a sign and exposes a
// date only as whole seconds and unsigned microseconds in 32-bit fields, so
// integers compare by their low 64 bits and dates by magnitude to the
// microsecond while they fit those fields (about 68 years either side of
// 2001); further dates compare by kind only.
#pragma once

#include <plist/plist.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kx/value.h"

namespace kx::test {

struct LibplistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using LibplistNode = std::unique_ptr<void, LibplistFree>;

// Null when libplist refuses the bytes.
inline LibplistNode LibplistRead(std::span<const uint8_t> bytes) {
  plist_t node = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()),
                 &node);
  return LibplistNode(node);
}

inline std::vector<uint8_t> LibplistWrite(plist_t node) {
  char* bin = nullptr;
  uint32_t length = 0;
  plist_to_bin(node, &bin, &length);
  std::vector<uint8_t> out(reinterpret_cast<uint8_t*>(bin), reinterpret_cast<uint8_t*>(bin) + length);
  if (bin) plist_to_bin_free(bin);
  return out;
}

// Empty when `value` is what libplist holds in `node`; otherwise where and
// how they differ.
inline std::string LibplistDifference(const Value& value, plist_t node, const std::string& path = "/") {
  auto differ = [&](const std::string& what) { return path + ": " + what + " (ours " + value.description() + ")"; };
  const plist_type type = plist_get_node_type(node);
  switch (value.kind()) {
    case Value::Kind::Number: {
      const Number& n = *value.number();
      if (n.isBool()) {
        uint8_t b = 0;
        if (type != PLIST_BOOLEAN) return differ("not a boolean");
        plist_get_bool_val(node, &b);
        return (b != 0) == n.boolValue() ? "" : differ("boolean differs");
      }
      if (n.isFloatingPoint()) {
        double d = 0;
        if (type != PLIST_REAL) return differ("not a real");
        plist_get_real_val(node, &d);
        const bool same = d == n.doubleValue() || (std::isnan(d) && std::isnan(n.doubleValue()));
        return same ? "" : differ("real differs: " + std::to_string(d));
      }
      uint64_t bits = 0;
      if (type != PLIST_UINT) return differ("not an integer");
      plist_get_uint_val(node, &bits);
      const uint64_t ours = n.type() == Number::Type::UInt64 ? n.uint64Value()
                                                             : static_cast<uint64_t>(n.int64Value());
      return bits == ours ? "" : differ("integer differs: " + std::to_string(bits));
    }
    case Value::Kind::Date: {
      if (type != PLIST_DATE) return differ("not a date");
      const double d = value.date()->secondsSinceReferenceDate;
      if (std::fabs(d) >= 2147483647.0) return "";
      // Seconds truncated toward zero, microseconds without their sign.
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      const bool same = std::fabs(std::fabs(d) - (std::fabs(static_cast<double>(sec)) + usec * 1e-6)) < 2e-6 &&
                        (sec == 0 || (sec < 0) == (d < 0));
      return same ? "" : differ("date differs");
    }
    case Value::Kind::String: {
      if (type != PLIST_STRING) return differ("not a string");
      uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      return std::string_view(s ? s : "", s ? length : 0) == *value.string() ? "" : differ("string differs");
    }
    case Value::Kind::Data: {
      if (type != PLIST_DATA) return differ("not data");
      uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      const Value::Bytes& b = *value.data();
      const bool same = length == b.size() && (length == 0 || std::memcmp(p, b.data(), length) == 0);
      return same ? "" : differ("data differs");
    }
    case Value::Kind::Array: {
      if (type != PLIST_ARRAY) return differ("not an array");
      const Array& items = *value.array();
      if (plist_array_get_size(node) != items.size()) return differ("array size differs");
      for (uint32_t i = 0; i < items.size(); ++i) {
        std::string e = LibplistDifference(items[i], plist_array_get_item(node, i), path + std::to_string(i) + "/");
        if (!e.empty()) return e;
      }
      return "";
    }
    case Value::Kind::Dictionary: {
      if (type != PLIST_DICT) return differ("not a dictionary");
      // A repeated key keeps its last value, as in our reader.
      std::map<std::string, plist_t, std::less<>> entries;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, it, &key, &child);
        if (!child) {
          std::free(key);
          break;
        }
        entries.insert_or_assign(key ? key : "", child);
        std::free(key);
      }
      std::free(it);
      const Dictionary& d = *value.dictionary();
      if (entries.size() != d.size()) return differ("dictionary size differs");
      for (const auto& [key, item] : d) {
        auto found = entries.find(key);
        if (found == entries.end()) return differ("key " + key + " missing");
        std::string e = LibplistDifference(item, found->second, path + key + "/");
        if (!e.empty()) return e;
      }
      return "";
    }
    default:
      return differ("not a property-list value");
  }
}

// The same value as a libplist tree (integers by their 64 bits, dates to
// the microsecond, as libplist holds them). Only property-list kinds.
inline LibplistNode ToLibplist(const Value& v) {
  switch (v.kind()) {
    case Value::Kind::Number: {
      const Number& n = *v.number();
      if (n.isBool()) return LibplistNode(plist_new_bool(n.boolValue()));
      if (n.isFloatingPoint()) return LibplistNode(plist_new_real(n.doubleValue()));
      return LibplistNode(plist_new_uint(n.uint64Value()));
    }
    case Value::Kind::Date: {
      const double d = v.date()->secondsSinceReferenceDate;
      const int32_t sec = static_cast<int32_t>(d);
      return LibplistNode(plist_new_date(sec, static_cast<int32_t>(std::lround((d - sec) * 1e6))));
    }
    case Value::Kind::String: return LibplistNode(plist_new_string(v.string()->c_str()));
    case Value::Kind::Data:
      return LibplistNode(plist_new_data(reinterpret_cast<const char*>(v.data()->data()), v.data()->size()));
    case Value::Kind::Array: {
      LibplistNode a(plist_new_array());
      for (const Value& item : *v.array()) plist_array_append_item(a.get(), ToLibplist(item).release());
      return a;
    }
    default: {
      LibplistNode d(plist_new_dict());
      for (const auto& [key, item] : *v.dictionary()) {
        plist_dict_set_item(d.get(), key.c_str(), ToLibplist(item).release());
      }
      return d;
    }
  }
}

}  // namespace kx::test
