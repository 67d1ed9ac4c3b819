// WireReader: a bounds-checked cursor over Protocol Buffers wire-format
// bytes. It never owns the bytes and never reads outside [bytes, bytes+length).
//
// Invariants:
//   position() <= length() at all times; every read first checks what remains.
//   Once the error flag is set it stays set; reads that fail return 0 or an
//   empty value, so a decoder may check the flag once after a run of reads.
//   length() is the current limit: inside a mark it is the end of the nested
//   message, and recallMark restores the outer limit.
//
// The hot functions are inline: decoding a record is a loop of readKey and a
// typed read per field, with one bounds check per read on the fast path.
#pragma once

#include "kx/export.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Wire types of a field key (the key's low three bits).
enum class WireType : uint8_t {
  Varint = 0,
  Fixed64 = 1,
  LengthDelimited = 2,
  StartGroup = 3,  // deprecated groups; skipped up to the matching end-group key
  EndGroup = 4,    // ends the current record (the packed stream's section mark)
  Fixed32 = 5,
};

// The saved outer limit of a nested message; see WireReader::placeMark.
struct WireReaderMark {
  size_t end = 0;          // position just after the nested message
  size_t outerLength = 0;  // the limit to restore
};

class KX_EXPORT WireReader {
 public:
  WireReader() = default;
  WireReader(const uint8_t* bytes, size_t length) : bytes_(bytes), length_(bytes ? length : 0) {}
  explicit WireReader(std::span<const uint8_t> bytes) : WireReader(bytes.data(), bytes.size()) {}
  // Derived readers (the packed-stream deserializer) own their region.
  virtual ~WireReader() = default;

  WireReader(const WireReader&) = default;
  WireReader& operator=(const WireReader&) = default;

  const uint8_t* bytes() const { return bytes_; }
  size_t length() const { return length_; }
  size_t position() const { return pos_; }
  bool hasError() const { return error_; }
  // True while unread bytes remain below the current limit.
  bool hasMoreData() const { return pos_ < length_; }
  void setError() { error_ = true; }

  // Reads a varint of at most ten bytes. When the tenth byte still has its
  // continuation bit the value is 0 and the ten bytes are consumed (no error:
  // a key read this way is key 0, which readers skip). Running past the limit
  // sets the error flag and yields 0.
  uint64_t readVarint() {
    if (length_ - pos_ >= kMaxVarintBytes) [[likely]] {
      const uint8_t* p = bytes_ + pos_;
      uint64_t b = p[0];
      if (b < 0x80) {
        pos_ += 1;
        return b;
      }
      return readVarintUnchecked(p, b);
    }
    return readVarintSlow();
  }
  // A field key: (field number << 3) | wire type. An end-group key also
  // records where it ends (see endGroupEnd).
  uint64_t readKey() {
    uint64_t key = readVarint();
    if (WireTypeOfKey(key) == WireType::EndGroup) [[unlikely]]
      endGroupEnd_ = pos_;
    return key;
  }
  // The position just after the last end-group key that readKey read at the
  // current nesting level, or kNoEndGroup. recallMark forgets keys read
  // inside the nested message, so a record reader that stopped at the
  // current position because of an end-group key (and not because the data
  // ran out) is told by endGroupEnd() == position().
  size_t endGroupEnd() const { return endGroupEnd_; }
  static constexpr size_t kNoEndGroup = SIZE_MAX;
  static WireType WireTypeOfKey(uint64_t key) { return static_cast<WireType>(key & 7); }

  // Integer fields take the varint's low bits, as the wire format prescribes
  // (an int32 of -1 arrives as a ten-byte varint).
  uint32_t readUInt32() { return static_cast<uint32_t>(readVarint()); }
  int32_t readInt32() { return static_cast<int32_t>(readVarint()); }
  uint64_t readUInt64() { return readVarint(); }
  int64_t readInt64() { return static_cast<int64_t>(readVarint()); }
  // True when the varint is non-zero and nothing failed.
  bool readBool() {
    uint64_t v = readVarint();
    return v != 0 && !error_;
  }

  // Eight bytes, little-endian. Fewer than eight left: error flag, 0, and the
  // position stays where it was.
  double readDouble() {
    uint64_t bits = readFixed64();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
  }
  uint64_t readFixed64() {
    if (length_ - pos_ < 8) [[unlikely]] {
      error_ = true;
      return 0;
    }
    uint64_t v = LoadLittleEndian64(bytes_ + pos_);
    pos_ += 8;
    return v;
  }
  uint32_t readFixed32() {
    if (length_ - pos_ < 4) [[unlikely]] {
      error_ = true;
      return 0;
    }
    const uint8_t* p = bytes_ + pos_;
    pos_ += 4;
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
  }

  // Length-delimited bytes as a view into the reader's buffer (no copy). A
  // length beyond the limit sets the error flag and yields an empty view.
  // The view lives as long as the underlying bytes.
  std::span<const uint8_t> readDataView() {
    uint64_t n = readVarint();
    if (error_ || n > length_ - pos_) [[unlikely]] {
      error_ = true;
      return {};
    }
    std::span<const uint8_t> out(bytes_ + pos_, static_cast<size_t>(n));
    pos_ += static_cast<size_t>(n);
    return out;
  }
  std::string_view readStringView() {
    std::span<const uint8_t> d = readDataView();
    return {reinterpret_cast<const char*>(d.data()), d.size()};
  }
  // Copies; empty on failure (check hasError to tell failure from "").
  std::string readString() { return std::string(readStringView()); }
  std::vector<uint8_t> readData() {
    std::span<const uint8_t> d = readDataView();
    return {d.begin(), d.end()};
  }

  // Skips the value of a field whose key has just been read. Returns false
  // (and sets the error flag where bytes are missing) when the value cannot
  // be skipped: a truncated value, an end-group key (which ends the record
  // and is never skipped), an unmatched or too deeply nested group, or wire
  // types 6 and 7.
  bool skipField(uint64_t key) {
    switch (WireTypeOfKey(key)) {
      case WireType::Varint:
        readVarint();
        return !error_;
      case WireType::Fixed64:
        return skipBytes(8);
      case WireType::LengthDelimited: {
        uint64_t n = readVarint();
        return !error_ && skipBytes(n);
      }
      case WireType::Fixed32:
        return skipBytes(4);
      case WireType::StartGroup:
        return skipGroup(key);
      default:
        return false;
    }
  }

  // Skips one record's fields up to the end of the data, an end-group key
  // (consumed, as readKey does) or a failure: the loop of a record reader
  // that skips every field with skipField, with the same result, position,
  // error flag and end-group position. Fields that the plain walk below
  // handles are skipped with the position in a register; anything else
  // (groups, end-group keys, over-long or cut varints, short values) goes
  // through readKey and skipField from that field's start.
  bool skipRecord() {
    if (error_) return false;
    const uint8_t* const end = bytes_ + length_;
    const uint8_t* p = bytes_ + pos_;
    while (p < end) {
      if (const uint8_t* next = SkipPlainField(p, end)) [[likely]] {
        p = next;
        continue;
      }
      pos_ = static_cast<size_t>(p - bytes_);
      const uint64_t key = readKey();
      if (error_ || WireTypeOfKey(key) == WireType::EndGroup) return !error_;
      if (!skipField(key)) return false;
      p = bytes_ + pos_;
    }
    pos_ = static_cast<size_t>(p - bytes_);
    return true;
  }

  // Consumes consecutive fields with the one-byte key `key` whose value is a
  // nested record that skipRecord would walk to its very end, stopping before
  // the first field that is anything else. The net effect of each field
  // consumed is that of reading its key, placeMark, skipRecord and
  // recallMark, without their bookkeeping. (Walking several records side by
  // side to overlap their chains of loads was measured slower: the extra
  // bookkeeping and the less predictable branches cost more than it saved.)
  void skipPlainNestedRecords(uint8_t key) {
    if (error_) return;
    const uint8_t* const limit = bytes_ + length_;
    const uint8_t* p = bytes_ + pos_;
    while (p < limit && *p == key) {
      uint64_t n;
      const uint8_t* q = ReadShortLength(p + 1, limit, &n);
      if (!q || n > static_cast<uint64_t>(limit - q)) break;
      const uint8_t* const stop = q + n;
      while (q && q < stop) q = SkipPlainField(q, stop);
      if (q != stop) break;
      p = stop;
      endGroupEnd_ = kNoEndGroup;
    }
    pos_ = static_cast<size_t>(p - bytes_);
  }

  // Reads the length of a nested message and confines reading to it; the
  // outer limit is saved in `mark`. A length past the limit sets the error
  // flag and returns false with the limit unchanged.
  bool placeMark(WireReaderMark* mark) {
    uint64_t n = readVarint();
    if (error_ || n > length_ - pos_) [[unlikely]] {
      error_ = true;
      return false;
    }
    mark->end = pos_ + static_cast<size_t>(n);
    mark->outerLength = length_;
    length_ = mark->end;
    return true;
  }
  // Continues after the nested message, whether or not its reader consumed
  // all of it, and restores the outer limit.
  void recallMark(const WireReaderMark& mark) {
    pos_ = mark.end;
    length_ = mark.outerLength;
    endGroupEnd_ = kNoEndGroup;
  }

  static constexpr size_t kMaxVarintBytes = 10;
  // Nesting limit of skipped groups; deeper input fails to skip.
  static constexpr size_t kMaxGroupDepth = 64;

 protected:
  // For derived readers that attach their bytes after construction.
  void reset(const uint8_t* bytes, size_t length) {
    bytes_ = bytes;
    length_ = bytes ? length : 0;
    pos_ = 0;
    error_ = false;
    endGroupEnd_ = kNoEndGroup;
  }

 private:
  static uint64_t LoadLittleEndian64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
  }

  // Ten bytes are known to be readable; `b` is p[0] with its high bit set.
  uint64_t readVarintUnchecked(const uint8_t* p, uint64_t b) {
    uint64_t result = b & 0x7f;
    for (size_t i = 1; i < kMaxVarintBytes; ++i) {
      b = p[i];
      result |= (b & 0x7f) << (7 * i);
      if (b < 0x80) {
        pos_ += i + 1;
        return result;
      }
    }
    pos_ += kMaxVarintBytes;
    return 0;
  }

  // The number of bytes of the varint at `p` when it ends within ten bytes
  // and before `end`; 0 when it is cut or over-long (the general reader's
  // rules apply: an over-long key is key 0, not the wire type of its first
  // byte).
  static size_t PlainVarintLength(const uint8_t* p, const uint8_t* end) {
    if (end - p >= 8) [[likely]] {
      uint64_t w;
      std::memcpy(&w, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
      w = __builtin_bswap64(w);
#endif
      const uint64_t stops = ~w & 0x8080808080808080ULL;
      if (stops) return static_cast<size_t>(__builtin_ctzll(stops)) / 8 + 1;
      if (end - p > 8 && p[8] < 0x80) return 9;
      return end - p > 9 && p[9] < 0x80 ? 10 : 0;
    }
    for (size_t i = 0; i < kMaxVarintBytes && p + i < end; ++i) {
      if (p[i] < 0x80) return i + 1;
    }
    return 0;
  }

  // A length of one or two bytes (below 16 KiB, which covers the fields and
  // results of realistic records) at `p`; the bytes after it, or null when
  // the length is longer or cut, for the general code to handle.
  static const uint8_t* ReadShortLength(const uint8_t* p, const uint8_t* end, uint64_t* n) {
    if (p < end && p[0] < 0x80) {
      *n = p[0];
      return p + 1;
    }
    if (end - p >= 2 && p[1] < 0x80) {
      *n = (p[0] & 0x7fu) | uint64_t{p[1]} << 7;
      return p + 2;
    }
    return nullptr;
  }

  // Skips the field starting at `p` (p < end) when skipField would skip it
  // without failing and its key is not an end-group key; returns the
  // position after it, or null for every other case, which the caller hands
  // to the general code. Keys of one and two bytes (fields 1 to 2047) and
  // lengths of one and two bytes are the cases handled here.
  [[gnu::always_inline]] static const uint8_t* SkipPlainField(const uint8_t* p,
                                                              const uint8_t* end) {
    const unsigned first = *p++;
    if (first >= 0x80) {
      if (p == end || *p >= 0x80) return nullptr;
      ++p;
    }
    switch (first & 7u) {
      case 2: {
        if (p == end) return nullptr;
        uint64_t n = *p++;
        if (n >= 0x80) {
          if (p == end || *p >= 0x80) return nullptr;
          n = (n & 0x7f) | uint64_t{*p++} << 7;
        }
        return n <= static_cast<uint64_t>(end - p) ? p + n : nullptr;
      }
      case 0: {
        if (p != end && *p < 0x80) return p + 1;
        const size_t n = PlainVarintLength(p, end);
        return n ? p + n : nullptr;
      }
      case 1: return end - p >= 8 ? p + 8 : nullptr;
      case 5: return end - p >= 4 ? p + 4 : nullptr;
      default: return nullptr;
    }
  }

  uint64_t readVarintSlow();
  bool skipGroup(uint64_t startKey);

  bool skipBytes(uint64_t n) {
    if (n > length_ - pos_) [[unlikely]] {
      error_ = true;
      return false;
    }
    pos_ += static_cast<size_t>(n);
    return true;
  }

  const uint8_t* bytes_ = nullptr;
  size_t length_ = 0;
  size_t pos_ = 0;
  size_t endGroupEnd_ = kNoEndGroup;
  bool error_ = false;
};
