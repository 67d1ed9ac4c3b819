// Reads binary property lists straight into values, validating as it goes.
//
// One depth-first walk over the object graph from the top object checks the
// trailer, the offset table, every object's extent and content, every
// reference, the nesting depth, reference cycles, and the size of the tree
// the graph expands to (a small graph of shared references can stand for an
// enormous tree), and builds the value on the way. An object reached a
// second time has been validated already and is rebuilt without checks;
// the expansion limits bound that work.
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "base/bplist_format.h"
#include "base/property_list.h"

namespace kx {

namespace {

using namespace bplist;

// Offsets and references may take any width from 1 to 8 bytes; some
// writers use 3 bytes once offsets pass 64 KiB.
bool IsIntegerWidth(uint8_t n) { return n >= 1 && n <= 8; }

uint64_t SaturatingAdd(uint64_t a, uint64_t b, uint64_t cap) {
  return a > cap || b > cap - a ? cap + 1 : a + b;
}

// Why a list is refused; null when it is not.
using Failure = const char*;

enum class Type : uint8_t { Bool, Integer, Real, Date, Data, Ascii, Utf16, Array, Dict };

// One object as stored. For containers `payload` points at the references;
// for strings and data at the content.
struct Object {
  Type type;
  const uint8_t* payload;
  uint64_t count;  // elements, entries, bytes or UTF-16 units; value size for scalars
};

// What the walk knows about one object. Counts saturate just above their
// limits, which fit in 32 bits.
struct State {
  uint8_t mark = 0;     // 0 unvisited, 1 on the current path, 2 done
  uint16_t height = 0;  // containers on the deepest path from here, at most the depth limit
  uint32_t nodes = 0;   // expanded tree size
  uint32_t bytes = 0;   // expanded content bytes
};
static_assert(kMaxPropertyListNodes < std::numeric_limits<uint32_t>::max());
static_assert(kMaxPropertyListExpandedBytes < std::numeric_limits<uint32_t>::max());
static_assert(kMaxPropertyListDepth < std::numeric_limits<uint16_t>::max());

// States by object index: in place for the small lists messages carry, a
// flat table for larger ones, and a map of the objects reached for the
// largest (whose object count the input declares, while only reached
// objects cost memory).
class StateTable {
 public:
  static constexpr uint64_t kMaxInPlace = 64;
  static constexpr uint64_t kMaxFlat = uint64_t{1} << 16;

  explicit StateTable(uint64_t objects) {
    if (objects <= kMaxInPlace) {
      table_ = inPlace_;
    } else if (objects <= kMaxFlat) {
      flat_.resize(objects);
      table_ = flat_.data();
    }
  }
  StateTable(const StateTable&) = delete;
  StateTable& operator=(const StateTable&) = delete;

  // References stay valid while others are added.
  State& operator[](uint64_t index) { return table_ ? table_[index] : sparse_[index]; }

 private:
  State inPlace_[kMaxInPlace];
  std::vector<State> flat_;
  std::unordered_map<uint64_t, State> sparse_;
  State* table_ = nullptr;
};

// Small non-negative integers are most of the numbers messages carry
// (identifiers, counts, flags, domains); their values are made once and
// shared, as values are immutable. Never destroyed, so that threads still
// decoding at exit find them.
const Value& SmallInteger(uint64_t v) {
  static const Value* const kTable = [] {
    Value* table = new Value[256];
    for (int64_t i = 0; i < 256; ++i) table[i] = Value(Number::Int64(i));
    return table;
  }();
  return kTable[v];
}

class Reader {
 public:
  Reader(std::span<const uint8_t> bytes, size_t maxDepth)
      : bytes_(bytes),
        maxDepth_(maxDepth),
        nodeLimit_(std::min<uint64_t>(kMaxPropertyListNodes,
                                      std::max<uint64_t>(kMaxPropertyListSharedNodes, bytes.size()))),
        bytesLimit_(std::min<uint64_t>(
            kMaxPropertyListExpandedBytes,
            std::max<uint64_t>(kMaxPropertyListSharedBytes,
                               uint64_t{bytes.size()} * kMaxPropertyListExpansion))) {}

  PropertyListResult Run() {
    if (Failure e = ReadTrailer(); e) return {Value(), e};
    StateTable states(objectCount_);
    states_ = &states;
    Value root;
    if (Failure e = Visit(top_, 0, &root); e) return {Value(), e};
    const State& top = states[top_];
    if (top.height > maxDepth_) return {Value(), "nesting too deep"};
    if (top.nodes > nodeLimit_) return {Value(), "too many objects"};
    if (top.bytes > bytesLimit_) return {Value(), "too much content"};
    return {std::move(root), {}};
  }

 private:
  Failure ReadTrailer() {
    const size_t size = bytes_.size();
    if (size < kHeaderSize + 1 + kTrailerSize) return "too short for a binary property list";
    if (std::memcmp(bytes_.data(), kMagic, kHeaderSize) != 0) return "not a binary property list";
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
    // Objects lie between the header and the offset table: a table that
    // starts within the header's eight bytes leaves them only the header.
    if (table <= kHeaderSize) return "no room for objects before the offset table";
    if (table > tableEnd) return "offset table out of range";
    if (count > (tableEnd - table) / offsetSize_) return "offset table out of range";
    objectCount_ = count;
    top_ = top;
    objectsEnd_ = table;
    table_ = bytes_.data() + table;
    return nullptr;
  }

  // Reads the extended count that follows a marker whose low nibble is 0xF;
  // null, or why it cannot be read.
  const char* ReadCount(uint64_t& pos, uint64_t& count) const {
    if (pos >= objectsEnd_) return "bad length";
    const uint8_t marker = bytes_[pos];
    if ((marker & 0xF0) != kInteger) return "bad length";
    // Counts are at most 64 bits; wider integers are refused, not cut.
    if ((marker & 0x0F) > 3) return "length wider than 8 bytes";
    const size_t n = size_t{1} << (marker & 0x0F);
    if (n > objectsEnd_ - pos - 1) return "bad length";
    count = ReadBigEndian(bytes_.data() + pos + 1, n);
    pos += 1 + n;
    return nullptr;
  }

  static double DoubleFromBits(uint64_t bits) {
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
  }

  // Locates object `index`; with `check`, also validates its content
  // (objects reached again were checked the first time).
  Failure Parse(uint64_t index, Object& o, bool check) const {
    const uint64_t offset = ReadBigEndian(table_ + index * offsetSize_, offsetSize_);
    if (offset < kHeaderSize) return "object offset inside the header";
    if (offset >= objectsEnd_) return "object offset out of range";
    uint64_t pos = offset + 1;
    const uint8_t marker = bytes_[offset];
    const uint8_t nibble = marker & 0x0F;
    auto fits = [&](uint64_t n) { return n <= objectsEnd_ - pos; };
    switch (marker & 0xF0) {
      case kSimple:
        if (nibble != 0x8 && nibble != 0x9) return "unsupported object type";
        o = {Type::Bool, nullptr, nibble == 0x9};
        return nullptr;
      case kInteger: {
        if (nibble > 4) return "bad integer size";
        const uint64_t n = uint64_t{1} << nibble;
        if (!fits(n)) return "object extends past the object area";
        const uint8_t* p = bytes_.data() + pos;
        if (n == 16 && ReadBigEndian(p, 8) != 0) return "integer out of range";
        o = {Type::Integer, p, n};
        return nullptr;
      }
      case kReal: {
        if (nibble != 2 && nibble != 3) return "bad real size";
        const uint64_t n = uint64_t{1} << nibble;
        if (!fits(n)) return "object extends past the object area";
        o = {Type::Real, bytes_.data() + pos, n};
        return nullptr;
      }
      case kDate: {
        if (nibble != 3) return "bad date";
        if (!fits(8)) return "object extends past the object area";
        const uint8_t* p = bytes_.data() + pos;
        const double d = DoubleFromBits(ReadBigEndian(p, 8));
        if (!std::isfinite(d) || std::fabs(d) > kMaxDateMagnitude) return "bad date";
        o = {Type::Date, p, 8};
        return nullptr;
      }
      case kData: case kAsciiString: case kUtf16String: case kArray: case kDictionary:
        break;
      default:
        return "unsupported object type";
    }
    uint64_t count = nibble;
    if (nibble == kExtendedLength) {
      if (const char* error = ReadCount(pos, count)) return error;
    }
    uint64_t unit = 1;
    Type type = Type::Data;
    switch (marker & 0xF0) {
      case kData: type = Type::Data; break;
      case kAsciiString: type = Type::Ascii; break;
      case kUtf16String: type = Type::Utf16; unit = 2; break;
      case kArray: type = Type::Array; unit = refSize_; break;
      case kDictionary: type = Type::Dict; unit = 2 * uint64_t{refSize_}; break;
    }
    if (count > (objectsEnd_ - pos) / unit) return "object extends past the object area";
    o = {type, bytes_.data() + pos, count};
    if (!check) return nullptr;
    if (type == Type::Ascii) {
      for (uint64_t i = 0; i < count; ++i) {
        if (o.payload[i] == 0 || o.payload[i] >= 0x80) return "bad ASCII string";
      }
    } else if (type == Type::Utf16) {
      for (uint64_t i = 0; i < count; ++i) {
        const uint16_t u = static_cast<uint16_t>(ReadBigEndian(o.payload + 2 * i, 2));
        if (u == 0 || U16_IS_TRAIL(u)) return "bad UTF-16 string";
        if (U16_IS_LEAD(u)) {
          if (i + 1 >= count) return "bad UTF-16 string";
          if (!U16_IS_TRAIL(ReadBigEndian(o.payload + 2 * (i + 1), 2))) return "bad UTF-16 string";
          ++i;
        }
      }
    }
    return nullptr;
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

  // The text of a validated string object.
  static std::string Text(const Object& o) {
    if (o.type == Type::Ascii) return std::string(reinterpret_cast<const char*>(o.payload), o.count);
    std::string s;
    s.reserve(3 * o.count);
    for (uint64_t i = 0; i < o.count; ++i) {
      UChar32 c = static_cast<UChar32>(ReadBigEndian(o.payload + 2 * i, 2));
      if (U16_IS_LEAD(c)) {
        c = U16_GET_SUPPLEMENTARY(c, ReadBigEndian(o.payload + 2 * ++i, 2));
      }
      char buffer[U8_MAX_LENGTH];
      int32_t n = 0;
      U8_APPEND_UNSAFE(buffer, n, c);
      s.append(buffer, static_cast<size_t>(n));
    }
    return s;
  }

  static Value Scalar(const Object& o) {
    switch (o.type) {
      case Type::Bool:
        return Value(o.count != 0);
      case Type::Integer: {
        if (o.count == 16) {
          const uint64_t low = ReadBigEndian(o.payload + 8, 8);
          if (low > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            return Value(Number::UInt64(low));
          }
          return Value(Number::Int64(static_cast<int64_t>(low)));
        }
        // 1, 2 and 4 bytes are unsigned, 8 bytes two's complement.
        const uint64_t bits = ReadBigEndian(o.payload, o.count);
        if (bits < 256) return SmallInteger(bits);
        return Value(Number::Int64(static_cast<int64_t>(bits)));
      }
      case Type::Real: {
        if (o.count == 8) return Value(Number::Double(DoubleFromBits(ReadBigEndian(o.payload, 8))));
        const uint32_t bits = static_cast<uint32_t>(ReadBigEndian(o.payload, 4));
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return Value(Number::Double(f));
      }
      case Type::Date:
        return Value(Date{DoubleFromBits(ReadBigEndian(o.payload, 8))});
      case Type::Data:
        return Value::DataFrom(o.payload, o.count);
      case Type::Ascii:
      case Type::Utf16:
        return Value(Text(o));
      default:
        return Value();
    }
  }

  static bool IsString(const Object& o) { return o.type == Type::Ascii || o.type == Type::Utf16; }

  // Validates the graph below `index` and, unless `out` is null, builds its
  // value there; `parsed`, unless null, receives the object itself.
  // Recursion depth is bounded by maxDepth_.
  Failure Visit(uint64_t index, size_t depth, Value* out, Object* parsed = nullptr) {
    State& s = (*states_)[index];
    if (s.mark == 2) {
      if (out) *out = Rebuild(index);
      if (parsed) Parse(index, *parsed, false);
      return nullptr;
    }
    if (s.mark == 1) return "reference cycle";
    // Every distinct object reached occurs at least once in the expanded
    // tree, so more of them than the node limit allows is already too many;
    // this also bounds the memory of this walk.
    if (++reached_ > nodeLimit_) return "too many objects";
    Object o;
    if (Failure e = Parse(index, o, true); e) return e;
    if (parsed) *parsed = o;
    s.nodes = 1;
    s.bytes = static_cast<uint32_t>(std::min(ContentBytes(o), bytesLimit_ + 1));
    if (o.type != Type::Array && o.type != Type::Dict) {
      s.mark = 2;
      if (out) *out = Scalar(o);
      return nullptr;
    }
    if (depth >= maxDepth_) return "nesting too deep";
    s.mark = 1;
    Container c(o, out, nodeLimit_);
    if (o.type == Type::Array) {
      for (uint64_t i = 0; i < o.count; ++i) {
        Value* item = c.nextItem();
        if (Failure e = VisitChild(Ref(o, i), depth, item, c); e) return e;
      }
    } else {
      for (uint64_t i = 0; i < o.count; ++i) {
        Object key;
        if (Failure e = VisitChild(Ref(o, i), depth, nullptr, c, &key); e) return e;
        if (!IsString(key)) return "dictionary key is not a string";
        Value* item = c.nextEntry(key);
        if (Failure e = VisitChild(Ref(o, o.count + i), depth, item, c); e) return e;
      }
    }
    s.height = static_cast<uint16_t>(c.height + 1);
    s.nodes = static_cast<uint32_t>(c.nodes);
    s.bytes = static_cast<uint32_t>(c.bytes);
    s.mark = 2;
    if (out) *out = c.finish();
    return nullptr;
  }

  // A container being built: its children's totals and its value.
  class Container {
   public:
    Container(const Object& o, Value* out, uint64_t nodeLimit) : out_(out), dict_(o.type == Type::Dict) {
      if (!out_) return;
      if (!dict_) array_.reserve(std::min(o.count, nodeLimit));
    }
    Value* nextItem() {
      if (!out_) return nullptr;
      return &array_.emplace_back();
    }
    // Values of a repeated key replace the earlier ones.
    Value* nextEntry(const Object& key) {
      if (!out_) return nullptr;
      auto it = entries_.insert_or_assign(entries_.end(), Text(key), Value());
      return &it->second;
    }
    Value finish() { return dict_ ? Value(std::move(entries_)) : Value(std::move(array_)); }

    uint32_t height = 0;
    uint64_t nodes = 1, bytes = 0;

   private:
    Value* out_;
    bool dict_;
    Array array_;
    Dictionary entries_;
  };

  Failure VisitChild(uint64_t child, size_t depth, Value* out, Container& c,
                     Object* parsed = nullptr) {
    if (child >= objectCount_) return "object reference out of range";
    if (Failure e = Visit(child, depth + 1, out, parsed); e) return e;
    const State& cs = (*states_)[child];
    c.height = std::max<uint32_t>(c.height, cs.height);
    c.nodes = SaturatingAdd(c.nodes, cs.nodes, nodeLimit_);
    c.bytes = SaturatingAdd(c.bytes, cs.bytes, bytesLimit_);
    if (c.nodes > nodeLimit_) return "too many objects";
    if (c.bytes > bytesLimit_) return "too much content";
    return nullptr;
  }

  // The value of an object the walk has validated in full.
  Value Rebuild(uint64_t index) const {
    Object o;
    Parse(index, o, false);
    if (o.type == Type::Array) {
      Array items;
      items.reserve(o.count);
      for (uint64_t i = 0; i < o.count; ++i) items.push_back(Rebuild(Ref(o, i)));
      return Value(std::move(items));
    }
    if (o.type == Type::Dict) {
      Dictionary entries;
      for (uint64_t i = 0; i < o.count; ++i) {
        Object key;
        Parse(Ref(o, i), key, false);
        entries.insert_or_assign(entries.end(), Text(key), Rebuild(Ref(o, o.count + i)));
      }
      return Value(std::move(entries));
    }
    return Scalar(o);
  }

  std::span<const uint8_t> bytes_;
  size_t maxDepth_;
  uint64_t nodeLimit_;
  uint64_t bytesLimit_;  // string and data bytes of the expanded tree
  uint8_t offsetSize_ = 0;
  uint8_t refSize_ = 0;
  uint64_t objectCount_ = 0;
  uint64_t top_ = 0;
  uint64_t objectsEnd_ = 0;  // the offset table's position; objects lie before it
  const uint8_t* table_ = nullptr;
  StateTable* states_ = nullptr;
  uint64_t reached_ = 0;  // distinct objects visited
};

}  // namespace

PropertyListResult DecodeBinaryPropertyList(std::span<const uint8_t> bytes) {
  if (bytes.size() > kMaxPropertyListBytes) return {Value(), "property list too large"};
  return Reader(bytes, kMaxPropertyListDepth).Run();
}

}  // namespace kx
