// Helpers shared by the result and section records: the key loop of their
// readers, string fields, string hashes.
//
// A record ends at the end of the reader's data, at the first error, or at a
// key of wire type 4 (end group), which is consumed: that is how the packed
// stream's 0x04 mark stops a section reader in the middle of a stream.
// Records dispatch on the low 16 bits of the field number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "kx/WireReader.h"

namespace kx {

// Reads the next key into `*key`; false when the record ends.
inline bool NextRecordKey(WireReader& reader, uint64_t* key) {
  if (!reader.hasMoreData() || reader.hasError()) return false;
  *key = reader.readKey();
  return !reader.hasError() && WireReader::WireTypeOfKey(*key) != WireType::EndGroup;
}

inline uint32_t RecordFieldNumber(uint64_t key) { return static_cast<uint32_t>(key >> 3) & 0xFFFF; }

// A string field as the reader yields it: absent when the read failed (as
// a failed integer read stores 0), otherwise the bytes, reusing the field's
// buffer.
inline void ReadStringField(WireReader& reader, std::optional<std::string>& field) {
  std::string_view v = reader.readStringView();
  if (reader.hasError()) {
    field.reset();
  } else if (field) {
    field->assign(v);
  } else {
    field.emplace(v);
  }
}

// The string hash inside the records' hashes; 0 for an absent string.
inline size_t HashOptionalString(const std::optional<std::string>& s) {
  return s ? std::hash<std::string_view>()(*s) : 0;
}

}  // namespace kx
