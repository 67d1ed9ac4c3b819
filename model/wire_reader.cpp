#include "kx/WireReader.h"

uint64_t WireReader::readVarintSlow() {
  // Fewer than ten bytes remain: check each one.
  uint64_t result = 0;
  for (size_t i = 0; i < kMaxVarintBytes; ++i) {
    if (pos_ >= length_) {
      error_ = true;
      return 0;
    }
    uint64_t b = bytes_[pos_++];
    result |= (b & 0x7f) << (7 * i);
    if (b < 0x80) return result;
  }
  return 0;  // ten continuation bytes: over-long, yields 0 like the fast path
}

// Groups are a deprecated encoding that this system never writes, but a
// reader skips them as any other unknown field so that messages from other
// writers stay readable: everything up to the end-group key with the same
// field number, nested groups included, is consumed. An end-group key of a
// different field number (such as the 0x04 section mark) means the group is
// broken, and the skip fails.
bool WireReader::skipGroup(uint64_t startKey) {
  uint64_t open[kMaxGroupDepth];
  size_t depth = 0;
  open[depth++] = startKey >> 3;
  while (true) {
    if (pos_ >= length_) {
      error_ = true;
      return false;
    }
    uint64_t key = readVarint();
    if (error_) return false;
    switch (WireTypeOfKey(key)) {
      case WireType::EndGroup:
        if ((key >> 3) != open[depth - 1]) return false;
        if (--depth == 0) return true;
        break;
      case WireType::StartGroup:
        if (depth == kMaxGroupDepth) return false;
        open[depth++] = key >> 3;
        break;
      default:
        if (!skipField(key)) return false;
        break;
    }
  }
}
