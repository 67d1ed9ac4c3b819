// bplist00 layout: the 8-byte header, the objects, the offset table (one
// big-endian offset per object), and a 32-byte trailer: 6 unused bytes, the
// offset size, the reference size, then big-endian 64-bit object count, top
// object index and offset-table position.
#include "base/bplist_validator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>

namespace kx {

namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;

// Dates beyond this many seconds from the reference date (about 31 million
// years) are not dates anyone stores; codecs convert them to integer
// seconds, so they are refused before that conversion can overflow.
constexpr double kMaxDateMagnitude = 1e15;

uint64_t ReadBigEndian(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

// Offsets and references may take any width from 1 to 8 bytes; writers use
// 3 bytes once offsets pass 64 KiB.
bool IsIntegerWidth(uint8_t n) { return n >= 1 && n <= 8; }

uint64_t SaturatingAdd(uint64_t a, uint64_t b, uint64_t cap) {
  return a > cap || b > cap - a ? cap + 1 : a + b;
}

enum class Type : uint8_t { Bool, Integer, Real, Date, Data, Ascii, Utf16, Array, Dict };

// One object as stored. For containers `payload` points at the references;
// for strings and data at the content.
struct Object {
  Type type;
  const uint8_t* payload;
  uint64_t count;  // elements, entries, bytes or UTF-16 units; value size for scalars
};

class Validator {
 public:
  Validator(std::span<const uint8_t> bytes, size_t maxDepth)
      : bytes_(bytes), maxDepth_(maxDepth) {}

  std::string Run(BinaryPropertyListScan* scan) {
    if (std::string e = ReadTrailer(); !e.empty()) return e;
    state_.reserve(std::min<uint64_t>(objectCount_, 1024));
    if (std::string e = Visit(top_, 0); !e.empty()) return e;
    const State& top = state_[top_];
    if (top.height > maxDepth_) return "nesting too deep";
    if (top.nodes > kMaxPropertyListNodes) return "too many objects";
    if (top.nodes > std::max<uint64_t>(kMaxPropertyListSharedNodes, bytes_.size())) {
      return "too many objects";
    }
    if (top.bytes > kMaxPropertyListExpandedBytes) return "too much content";
    if (scan) {
      scan->integers.clear();
      scan->dates.clear();
      scan->nodes = top.nodes;
      Collect(top_, scan);
    }
    return {};
  }

 private:
  struct State {
    uint8_t mark = 0;     // 0 unvisited, 1 on the current path, 2 done
    uint32_t height = 0;  // containers on the deepest path from here
    uint64_t nodes = 0;   // expanded tree size, saturated
    uint64_t bytes = 0;   // expanded content bytes, saturated
  };

  std::string ReadTrailer() {
    const size_t size = bytes_.size();
    if (size < kHeaderSize + 1 + kTrailerSize) return "too short for a binary property list";
    if (std::memcmp(bytes_.data(), "bplist00", kHeaderSize) != 0) return "not a binary property list";
    const uint8_t* t = bytes_.data() + size - kTrailerSize;
    offsetSize_ = t[6];
    refSize_ = t[7];
    if (!IsIntegerWidth(offsetSize_) || !IsIntegerWidth(refSize_)) {
      return "bad offset or reference size";
    }
    const uint64_t count = ReadBigEndian(t + 8, 8);
    const uint64_t top = ReadBigEndian(t + 16, 8);
    const uint64_t table = ReadBigEndian(t + 24, 8);
    const uint64_t tableEnd = size - kTrailerSize;
    if (count == 0 || top >= count) return "bad object count or top object";
    if (table < kHeaderSize + 1 || table > tableEnd) return "offset table out of range";
    if (count > (tableEnd - table) / offsetSize_) return "offset table out of range";
    objectCount_ = count;
    top_ = top;
    objectsEnd_ = table;
    table_ = bytes_.data() + table;
    return {};
  }

  // Reads the extended count that follows a marker whose low nibble is 0xF.
  bool ReadCount(uint64_t& pos, uint64_t& count) const {
    if (pos >= objectsEnd_) return false;
    const uint8_t marker = bytes_[pos];
    if ((marker & 0xF0) != 0x10 || (marker & 0x0F) > 3) return false;
    const size_t n = size_t{1} << (marker & 0x0F);
    if (n > objectsEnd_ - pos - 1) return false;
    count = ReadBigEndian(bytes_.data() + pos + 1, n);
    pos += 1 + n;
    return true;
  }

  std::string Parse(uint64_t index, Object& o) const {
    const uint64_t offset = ReadBigEndian(table_ + index * offsetSize_, offsetSize_);
    if (offset < kHeaderSize || offset >= objectsEnd_) return "object offset out of range";
    uint64_t pos = offset + 1;
    const uint8_t marker = bytes_[offset];
    const uint8_t nibble = marker & 0x0F;
    auto fits = [&](uint64_t n) { return n <= objectsEnd_ - pos; };
    switch (marker >> 4) {
      case 0x0:
        if (nibble != 0x8 && nibble != 0x9) return "unsupported object type";
        o = {Type::Bool, nullptr, nibble == 0x9};
        return {};
      case 0x1: {
        if (nibble > 4) return "bad integer size";
        const uint64_t n = uint64_t{1} << nibble;
        if (!fits(n)) return "object extends past the object area";
        const uint8_t* p = bytes_.data() + pos;
        if (n == 16 && ReadBigEndian(p, 8) != 0) return "integer out of range";
        o = {Type::Integer, p, n};
        return {};
      }
      case 0x2: {
        if (nibble != 2 && nibble != 3) return "bad real size";
        const uint64_t n = uint64_t{1} << nibble;
        if (!fits(n)) return "object extends past the object area";
        o = {Type::Real, bytes_.data() + pos, n};
        return {};
      }
      case 0x3: {
        if (nibble != 3) return "bad date";
        if (!fits(8)) return "object extends past the object area";
        const uint8_t* p = bytes_.data() + pos;
        const uint64_t bits = ReadBigEndian(p, 8);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (!std::isfinite(d) || std::fabs(d) > kMaxDateMagnitude) return "bad date";
        o = {Type::Date, p, 8};
        return {};
      }
      case 0x4: case 0x5: case 0x6: case 0xA: case 0xD:
        break;
      default:
        return "unsupported object type";
    }
    uint64_t count = nibble;
    if (nibble == 0xF && !ReadCount(pos, count)) return "bad length";
    uint64_t unit = 1;
    Type type = Type::Data;
    switch (marker >> 4) {
      case 0x4: type = Type::Data; break;
      case 0x5: type = Type::Ascii; break;
      case 0x6: type = Type::Utf16; unit = 2; break;
      case 0xA: type = Type::Array; unit = refSize_; break;
      case 0xD: type = Type::Dict; unit = 2 * uint64_t{refSize_}; break;
    }
    if (count > (objectsEnd_ - pos) / unit) return "object extends past the object area";
    o = {type, bytes_.data() + pos, count};
    if (type == Type::Ascii) {
      for (uint64_t i = 0; i < count; ++i) {
        if (o.payload[i] == 0 || o.payload[i] >= 0x80) return "bad ASCII string";
      }
    } else if (type == Type::Utf16) {
      for (uint64_t i = 0; i < count; ++i) {
        const uint32_t u = static_cast<uint32_t>(ReadBigEndian(o.payload + 2 * i, 2));
        if (u == 0) return "bad UTF-16 string";
        if (u >= 0xDC00 && u <= 0xDFFF) return "bad UTF-16 string";
        if (u >= 0xD800 && u <= 0xDBFF) {
          if (i + 1 >= count) return "bad UTF-16 string";
          const uint32_t low = static_cast<uint32_t>(ReadBigEndian(o.payload + 2 * (i + 1), 2));
          if (low < 0xDC00 || low > 0xDFFF) return "bad UTF-16 string";
          ++i;
        }
      }
    }
    return {};
  }

  uint64_t Ref(const Object& o, uint64_t i) const {
    return ReadBigEndian(o.payload + i * refSize_, refSize_);
  }

  // Content bytes a decoded string or data object occupies (UTF-16 units
  // may take three bytes each as UTF-8).
  static uint64_t ContentBytes(const Object& o) {
    switch (o.type) {
      case Type::Data: case Type::Ascii: return o.count;
      case Type::Utf16: return 3 * o.count;
      default: return 0;
    }
  }

  // Depth-first over the graph; recursion depth is bounded by maxDepth_.
  std::string Visit(uint64_t index, size_t depth) {
    // Elements of the map keep their address when it grows.
    State& s = state_[index];
    if (s.mark == 2) return {};
    if (s.mark == 1) return "reference cycle";
    // Every distinct object reached occurs at least once in the expanded
    // tree, so more of them than the node limit allows is already too many;
    // this also bounds the memory of this walk.
    if (state_.size() > kMaxPropertyListNodes) return "too many objects";
    Object o;
    if (std::string e = Parse(index, o); !e.empty()) return e;
    s.nodes = 1;
    s.bytes = ContentBytes(o);
    if (o.type != Type::Array && o.type != Type::Dict) {
      s.mark = 2;
      return {};
    }
    if (depth >= maxDepth_) return "nesting too deep";
    s.mark = 1;
    const bool dict = o.type == Type::Dict;
    const uint64_t refs = dict ? 2 * o.count : o.count;
    uint32_t height = 0;
    uint64_t nodes = 1, bytes = 0;
    for (uint64_t i = 0; i < refs; ++i) {
      const uint64_t child = Ref(o, i);
      if (child >= objectCount_) return "object reference out of range";
      if (std::string e = Visit(child, depth + 1); !e.empty()) return e;
      const State& c = state_.at(child);
      if (dict && i < o.count) {
        Object key;
        Parse(child, key);  // already validated by Visit
        if (key.type != Type::Ascii && key.type != Type::Utf16) return "dictionary key is not a string";
      }
      height = std::max(height, c.height);
      nodes = SaturatingAdd(nodes, c.nodes, kMaxPropertyListNodes);
      bytes = SaturatingAdd(bytes, c.bytes, kMaxPropertyListExpandedBytes);
      if (nodes > kMaxPropertyListNodes) return "too many objects";
      if (bytes > kMaxPropertyListExpandedBytes) return "too much content";
    }
    s.height = height + 1;
    s.nodes = nodes;
    s.bytes = bytes;
    s.mark = 2;
    return {};
  }

  // Walks the expanded tree of a validated graph in document order.
  void Collect(uint64_t index, BinaryPropertyListScan* scan) const {
    Object o;
    Parse(index, o);
    switch (o.type) {
      case Type::Integer:
        scan->integers.push_back({ReadBigEndian(o.payload + (o.count == 16 ? 8 : 0),
                                                o.count == 16 ? 8 : o.count),
                                  o.count == 16});
        return;
      case Type::Date: {
        const uint64_t bits = ReadBigEndian(o.payload, 8);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        scan->dates.push_back(d);
        return;
      }
      case Type::Array:
        for (uint64_t i = 0; i < o.count; ++i) Collect(Ref(o, i), scan);
        return;
      case Type::Dict:
        for (uint64_t i = 0; i < o.count; ++i) {
          Collect(Ref(o, i), scan);
          Collect(Ref(o, o.count + i), scan);
        }
        return;
      default:
        return;
    }
  }

  std::span<const uint8_t> bytes_;
  size_t maxDepth_;
  uint8_t offsetSize_ = 0;
  uint8_t refSize_ = 0;
  uint64_t objectCount_ = 0;
  uint64_t top_ = 0;
  uint64_t objectsEnd_ = 0;  // the offset table's position; objects lie before it
  const uint8_t* table_ = nullptr;
  // Keyed by object index; holds only objects reached so far.
  std::unordered_map<uint64_t, State> state_;
};

}  // namespace

std::string ValidateBinaryPropertyList(std::span<const uint8_t> bytes, size_t maxBytes,
                                       size_t maxDepth, BinaryPropertyListScan* scan) {
  if (bytes.size() > maxBytes) return "property list too large";
  return Validator(bytes, maxDepth).Run(scan);
}

}  // namespace kx
