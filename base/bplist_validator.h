// Structural validation of binary property lists ("bplist00") before any
// third-party codec sees them.
//
// The validator walks the object graph from the top object and accepts only
// what the value model can hold: booleans, integers (1, 2, 4, 8 bytes, and
// 16 bytes when the value fits in 64 unsigned bits), reals (4 or 8 bytes),
// dates (finite), data, ASCII and UTF-16 strings (well formed, no NUL),
// arrays, and dictionaries with string keys. It checks the header, the
// trailer, the offset table, every object's extent, every reference, the
// nesting depth, reference cycles, and the size of the tree the graph
// expands to (a small graph of shared references can stand for an enormous
// tree, and decoders expand it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kx {

// The largest tree, in nodes, that a binary property list may expand to.
inline constexpr uint64_t kMaxPropertyListNodes = uint64_t{1} << 20;
// Below kMaxPropertyListNodes, a tree may also have no more nodes than the
// input has bytes, unless it stays within this many. A list whose
// containers are each referred to once (what writers produce) never has
// more: every node but the root takes a reference of at least one byte.
// Only shared containers expand further, and without this bound a few
// hundred bytes could stand for a million nodes, which take seconds to
// decode and far longer to encode again (libplist's writer is quadratic in
// the number of objects).
inline constexpr uint64_t kMaxPropertyListSharedNodes = uint64_t{1} << 16;
// The most string and data bytes the expanded tree may hold.
inline constexpr uint64_t kMaxPropertyListExpandedBytes = uint64_t{256} << 20;

// What a successful validation learned about scalars whose exact form the
// codec's interface does not expose. Both lists are in document order: the
// depth-first order of the expanded tree, array elements in order, each
// dictionary key before its value.
struct BinaryPropertyListScan {
  struct Integer {
    uint64_t bits;  // the low 64 bits, as stored
    bool wide;      // stored in 16 bytes: an unsigned value
  };
  std::vector<Integer> integers;
  std::vector<double> dates;  // seconds since the reference date, exact
  uint64_t nodes = 0;         // nodes of the expanded tree
};

// Returns an empty string when `bytes` is a binary property list the value
// model can hold within the limits (size, `maxDepth` nested containers,
// kMaxPropertyListNodes, kMaxPropertyListSharedNodes,
// kMaxPropertyListExpandedBytes); otherwise a short
// reason. Fills `scan` (when given) only on success.
std::string ValidateBinaryPropertyList(std::span<const uint8_t> bytes, size_t maxBytes,
                                       size_t maxDepth, BinaryPropertyListScan* scan);

}  // namespace kx
