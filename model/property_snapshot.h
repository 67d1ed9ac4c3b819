// A private copy of an additional-property dictionary that tells whether the
// dictionary still holds exactly what it held when the copy was taken, so
// that the archive made from it may be sent again.
//
// Values share immutable storage, but a container's storage can still be
// changed in place through a pointer that `mutableArray()` or
// `mutableDictionary()` handed out earlier. A snapshot that shared that
// storage would change along with the dictionary and never notice, so the
// snapshot owns fresh copies of every array and dictionary, shares only the
// immutable leaves, and compares containers by content and leaves by
// identity. Identity is stricter than `Value::operator==`, which takes 1,
// 1.0 and true as equal although their archives differ.
//
// Records inside values can change in place where no copy would notice, so
// a dictionary that holds any is never snapshotted.
#pragma once

#include <optional>

#include "kx/value.h"

namespace kx {

class PropertySnapshot {
 public:
  // Nullopt when `dict` holds a record at any depth.
  static std::optional<PropertySnapshot> Take(const Dictionary& dict);

  // True when `dict` has the same keys, containers of the same shape and
  // the very same leaf values as the dictionary the snapshot was taken of.
  bool matches(const Dictionary& dict) const;

 private:
  explicit PropertySnapshot(Dictionary entries) : entries_(std::move(entries)) {}
  Dictionary entries_;
};

}  // namespace kx
