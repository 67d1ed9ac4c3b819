// Layout of binary property lists ("bplist00"), shared by the reader and
// the writer: the 8-byte header, the objects, the offset table (one
// big-endian offset per object), and a 32-byte trailer: 6 unused bytes, the
// offset size, the reference size, then big-endian 64-bit object count, top
// object index and offset-table position.
//
// An object starts with a marker byte: the type in the high nibble, a small
// length or size in the low one. A length of 15 or more is written as 0xF
// followed by an integer object holding it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kx::bplist {

inline constexpr char kMagic[] = "bplist00";
inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kTrailerSize = 32;

// Marker high nibbles.
inline constexpr uint8_t kSimple = 0x00;  // low nibble 8: false, 9: true
inline constexpr uint8_t kInteger = 0x10;
inline constexpr uint8_t kReal = 0x20;
inline constexpr uint8_t kDate = 0x30;
inline constexpr uint8_t kData = 0x40;
inline constexpr uint8_t kAsciiString = 0x50;
inline constexpr uint8_t kUtf16String = 0x60;
inline constexpr uint8_t kArray = 0xA0;
inline constexpr uint8_t kDictionary = 0xD0;
inline constexpr uint8_t kExtendedLength = 0x0F;

// Dates beyond this many seconds from the reference date (about 31 million
// years) are not dates anyone stores; other codecs convert them to integer
// seconds, so neither side accepts them before that conversion can overflow.
inline constexpr double kMaxDateMagnitude = 1e15;

inline uint64_t ReadBigEndian(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

inline void WriteBigEndian(uint8_t* p, uint64_t v, size_t n) {
  for (size_t i = 0; i < n; ++i) p[n - 1 - i] = static_cast<uint8_t>(v >> (8 * i));
}

}  // namespace kx::bplist
