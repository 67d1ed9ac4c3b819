// Binary property lists (format 1.0) for the value model.
//
// Input is bounded in size and nesting before the third-party codec sees it;
// damaged bytes give an error, never a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "kx/value.h"

namespace kx {

inline constexpr size_t kMaxPropertyListBytes = 64u * 1024 * 1024;
inline constexpr size_t kMaxPropertyListDepth = 128;

struct PropertyListResult {
  Value value;        // nil on failure
  std::string error;  // empty on success
  bool ok() const { return error.empty(); }
};

// Encodes a value made of property-list types (dictionary with string keys,
// array, string, data, date, number, boolean). Other kinds (null, URL, error,
// geometry, objects) fail with an error.
std::vector<uint8_t> EncodeBinaryPropertyList(const Value& value, std::string* error = nullptr);
PropertyListResult DecodeBinaryPropertyList(std::span<const uint8_t> bytes);

}  // namespace kx
