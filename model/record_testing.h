// Byte builders for the record tests: encodings written out by hand.
#pragma once

#include <cstdint>
#include <vector>

namespace kx::test {

using Bytes = std::vector<uint8_t>;

inline Bytes Varint(uint64_t v) {
  Bytes out;
  for (; v >= 0x80; v >>= 7) out.push_back(static_cast<uint8_t>(v | 0x80));
  out.push_back(static_cast<uint8_t>(v));
  return out;
}

inline void Append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

// A length-delimited field: the key's bytes, the payload's length, the payload.
inline Bytes Delimited(Bytes key, const Bytes& payload) {
  Append(key, Varint(payload.size()));
  Append(key, payload);
  return key;
}

}  // namespace kx::test
