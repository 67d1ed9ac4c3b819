// The key loop shared by the result and section readers.
//
// A record ends at the end of the reader's data, at the first error, or at a
// key of wire type 4 (end group), which is consumed: that is how the packed
// stream's 0x04 mark stops a section reader in the middle of a stream.
// Records dispatch on the low 16 bits of the field number.
#pragma once

#include <cstdint>

#include "model/wire_reader.h"

namespace kx {

// Reads the next key into `*key`; false when the record ends.
inline bool NextRecordKey(WireReader& reader, uint64_t* key) {
  if (!reader.hasMoreData() || reader.hasError()) return false;
  *key = reader.readKey();
  return !reader.hasError() && WireReader::WireTypeOfKey(*key) != WireType::EndGroup;
}

inline uint32_t RecordFieldNumber(uint64_t key) { return static_cast<uint32_t>(key >> 3) & 0xFFFF; }

}  // namespace kx
