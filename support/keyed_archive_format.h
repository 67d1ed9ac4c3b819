// The layout of a keyed archive, shared by the archiver and the unarchiver.
//
// An archive is a binary property list holding one dictionary:
//   "$archiver": "KXKeyedArchiver"
//   "$version":  1
//   "$top":      the top-level keys (the root object sits under "root")
//   "$objects":  the object table; entry 0 is the string "$null" and stands
//                for nil, so reference 0 always means "no object"
// Table entries:
//   a string or a data value: that value itself
//   any other entry: a dictionary whose "$class" names its class:
//     KXNumber      "type" (bool char int16 uint16 int32 uint32 int64 uint64
//                   float double) and "value" (a property-list number)
//     KXDate        "time": seconds since the reference date
//     KXURL         "string": the absolute string
//     KXArray       "objects": array of table indices
//     KXDictionary  "entries": dictionary from key to table index
//     KXNull        nothing else
//     KXError       "domain", "code", "userInfo" (table index, 0 for none)
//     KXValue       "type" (point size rect) and "values" (array of reals)
//     a record      the record's keys, each holding a boolean, an integer, a
//                   real, or an object reference {"$ref": index}
// Record keys that begin with "$" are stored with one more "$" in front, so
// they never collide with "$class". Each record appears once in the table
// however often it is referenced, so shared references and cycles survive.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kx::archive_format {

inline constexpr std::string_view kArchiverKey = "$archiver";
inline constexpr std::string_view kArchiverName = "KXKeyedArchiver";
inline constexpr std::string_view kVersionKey = "$version";
inline constexpr int64_t kVersion = 1;
inline constexpr std::string_view kTopKey = "$top";
inline constexpr std::string_view kObjectsKey = "$objects";
inline constexpr std::string_view kNullEntry = "$null";
inline constexpr std::string_view kClassKey = "$class";
inline constexpr std::string_view kReferenceKey = "$ref";
inline constexpr std::string_view kRootKey = "root";

// Limit of nested objects while encoding or decoding; deeper graphs fail
// instead of exhausting the stack.
inline constexpr int kMaxDepth = 256;

inline bool NeedsEscape(std::string_view key) { return !key.empty() && key[0] == '$'; }
inline std::string EscapeKey(std::string_view key) {
  return NeedsEscape(key) ? "$" + std::string(key) : std::string(key);
}

}  // namespace kx::archive_format
