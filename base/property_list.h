// Binary property lists (format 1.0) for the value model, read and written
// by our own codec.
//
// Reading bounds the input's size, its nesting, and the tree that shared
// references expand to before anything is built; damaged or hostile bytes
// give an error, never a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "kx/value.h"

namespace kx {

inline constexpr size_t kMaxPropertyListBytes = 64u * 1024 * 1024;
inline constexpr size_t kMaxPropertyListDepth = 128;
// The largest tree, in nodes, that a binary property list may expand to.
inline constexpr uint64_t kMaxPropertyListNodes = uint64_t{1} << 20;
// Below kMaxPropertyListNodes, a tree may also have no more nodes than the
// input has bytes, unless it stays within this many. A list whose
// containers are each referred to once (what writers produce) never has
// more: every node but the root takes a reference of at least one byte.
// Only shared containers expand further. The allowance is small because
// lists arrive by the thousand (one in every result of a batch): with 64 Ki
// nodes, 200 bytes of a daemon's result stood for 6 MiB, and a batch of
// such results kept a client busy for over a minute.
inline constexpr uint64_t kMaxPropertyListSharedNodes = 32;
// The most string and data bytes the expanded tree may hold.
inline constexpr uint64_t kMaxPropertyListExpandedBytes = uint64_t{256} << 20;
// Below kMaxPropertyListExpandedBytes, the tree may also hold no more than
// kMaxPropertyListExpansion times the input's size in string and data
// bytes, unless it stays within kMaxPropertyListSharedBytes. Writers share
// equal strings, which expands a little; without this bound a data object
// of 60 KiB referred to 4,000 times (70 KiB of input, one message) built
// 240 MiB.
inline constexpr uint64_t kMaxPropertyListExpansion = 16;
inline constexpr uint64_t kMaxPropertyListSharedBytes = uint64_t{4} << 10;

struct PropertyListResult {
  Value value;        // nil on failure
  std::string error;  // empty on success
  bool ok() const { return error.empty(); }
};

// Encodes a value made of property-list types (dictionary with string keys,
// array, string, data, date, number, boolean). Other kinds (null, URL, error,
// geometry, objects), strings that are not UTF-8 or hold a NUL, dates
// further than 1e15 s from the reference date and nesting deeper than
// kMaxPropertyListDepth fail with an error.
std::vector<uint8_t> EncodeBinaryPropertyList(const Value& value, std::string* error = nullptr);

// Decodes what the value model can hold: booleans, integers (1, 2, 4, 8
// bytes, and 16 bytes when the value fits in 64 unsigned bits), reals (4 or
// 8 bytes), dates (finite, within 1e15 s), data, ASCII and UTF-16 strings
// (well formed, no NUL), arrays, and dictionaries with string keys; a
// repeated key keeps its last value. Integers decode as Int64 except 16-byte
// ones above the signed range (UInt64), reals as Double.
PropertyListResult DecodeBinaryPropertyList(std::span<const uint8_t> bytes);

}  // namespace kx
