// Writes values as binary property lists in one pass over the value,
// every object after its children, so a container's references are known
// when it is written and the top object is the last one. References are
// one byte wide until a list turns out to have more than 256 objects; such
// a list is written again with wider ones.
//
// Every value gets its own object, shared storage or not: the output never
// expands to more nodes than it has objects, so whatever we write passes
// the reader's limits on expansion. Integers take the smallest of 1, 2, 4
// and 8 bytes (1, 2 and 4 byte forms are unsigned, 8 bytes two's
// complement); unsigned values above the signed range take 16 bytes, the
// only form that reads back as unsigned. Reals are always 8 bytes.
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "base/bplist_format.h"
#include "base/property_list.h"

namespace kx {

namespace {

using namespace bplist;

// Bytes needed for `v` as an unsigned integer in a 1, 2, 4 or 8 byte field.
size_t IntegerWidth(uint64_t v) {
  if (v <= 0xFF) return 1;
  if (v <= 0xFFFF) return 2;
  if (v <= 0xFFFFFFFF) return 4;
  return 8;
}

// Log2 of IntegerWidth, the marker's size nibble.
uint8_t IntegerSizeNibble(uint64_t v) {
  switch (IntegerWidth(v)) {
    case 1: return 0;
    case 2: return 1;
    case 4: return 2;
    default: return 3;
  }
}

// Marker plus the widest extended length.
constexpr size_t kMaxObjectHeader = 1 + 1 + 8;

bool IsAsciiWithoutNul(std::string_view s) {
  for (char c : s) {
    if (c == 0 || static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

const char* KindName(Value::Kind k) {
  switch (k) {
    case Value::Kind::Nil: return "an absent value";
    case Value::Kind::Null: return "null";
    case Value::Kind::URL: return "a URL";
    case Value::Kind::Error: return "an error";
    case Value::Kind::Point: return "a point";
    case Value::Kind::Size: return "a size";
    case Value::Kind::Rect: return "a rect";
    case Value::Kind::Object: return "an object";
    default: return "this value";
  }
}

// Index tables kept per thread between lists, so that writing a small list
// allocates only its output.
struct Scratch {
  std::vector<uint64_t> offsets;
  std::vector<uint64_t> children;
  // Large lists leave no large tables behind.
  void trim() {
    constexpr size_t kKeep = 4096;
    if (offsets.capacity() > kKeep) std::vector<uint64_t>().swap(offsets);
    if (children.capacity() > kKeep) std::vector<uint64_t>().swap(children);
  }
};

class Writer {
 public:
  explicit Writer(Scratch& scratch) : offsets_(scratch.offsets), children_(scratch.children) {}

  std::vector<uint8_t> Write(const Value& root, std::string* error) {
    // Most lists have at most 256 objects and one-byte references; a list
    // with more is written again once its object count is known.
    bool written = WriteAll(root, 1);
    const uint64_t objects = offsets_.size();
    if (written && objects - 1 > 0xFF) written = WriteAll(root, IntegerWidth(objects - 1));
    if (!written) return Fail(error, std::move(error_));
    out_.resize(pos_);
    if (error) error->clear();
    return std::move(out_);
  }

 private:
  static std::vector<uint8_t> Fail(std::string* error, std::string reason) {
    if (error) *error = std::move(reason);
    return {};
  }

  // Writes the whole list with references of `refSize` bytes.
  bool WriteAll(const Value& root, size_t refSize) {
    refSize_ = refSize;
    pos_ = 0;
    offsets_.clear();
    children_.clear();
    if (out_.size() < kInitialCapacity) out_.resize(kInitialCapacity);
    Reserve(kHeaderSize);
    PutBytes(kMagic, kHeaderSize);
    if (!WriteObject(root, 0)) return false;

    const uint64_t table = pos_;
    const size_t offsetSize = IntegerWidth(offsets_.back());
    if (!Reserve(offsets_.size() * offsetSize + kTrailerSize)) return false;
    for (uint64_t offset : offsets_) Put(offset, offsetSize);
    uint8_t* trailer = out_.data() + pos_;
    std::memset(trailer, 0, kTrailerSize);
    trailer[6] = static_cast<uint8_t>(offsetSize);
    trailer[7] = static_cast<uint8_t>(refSize_);
    WriteBigEndian(trailer + 8, offsets_.size(), 8);
    WriteBigEndian(trailer + 16, offsets_.size() - 1, 8);  // the root is written last
    WriteBigEndian(trailer + 24, table, 8);
    pos_ += kTrailerSize;
    return true;
  }

  static constexpr size_t kInitialCapacity = 512;

  // Makes room for `n` more bytes; false (with `error_` set) beyond the
  // size limit.
  bool Reserve(uint64_t n) {
    if (n > kMaxPropertyListBytes - std::min<uint64_t>(pos_, kMaxPropertyListBytes)) {
      return Refuse("property list too large");
    }
    if (pos_ + n > out_.size()) out_.resize(std::max<uint64_t>(2 * out_.size(), pos_ + n));
    return true;
  }

  // Returns false with `error_` set.
  bool WriteObject(const Value& v, size_t depth) {
    switch (v.kind()) {
      case Value::Kind::Number:
        return WriteNumber(*v.number());
      case Value::Kind::String:
        return WriteString(*v.string(), "string is not valid UTF-8 without NUL");
      case Value::Kind::Data: {
        const Value::Bytes& b = *v.data();
        if (!Reserve(kMaxObjectHeader + b.size())) return false;
        BeginObject(kData, b.size());
        PutBytes(b.data(), b.size());
        return true;
      }
      case Value::Kind::Date: {
        const double d = v.date()->secondsSinceReferenceDate;
        if (!std::isfinite(d) || std::fabs(d) > kMaxDateMagnitude) return Refuse("date out of range");
        if (!Reserve(1 + 8)) return false;
        BeginObject(kDate | 3);
        PutDouble(d);
        return true;
      }
      case Value::Kind::Array: {
        if (depth >= kMaxPropertyListDepth) return Refuse("nesting too deep");
        const size_t base = children_.size();
        for (const Value& item : *v.array()) {
          if (!WriteObject(item, depth + 1)) return false;
          children_.push_back(offsets_.size() - 1);
        }
        return WriteContainer(kArray, base, v.array()->size());
      }
      case Value::Kind::Dictionary: {
        if (depth >= kMaxPropertyListDepth) return Refuse("nesting too deep");
        const Dictionary& d = *v.dictionary();
        const size_t base = children_.size();
        for (const auto& entry : d) {
          if (!WriteString(entry.first, "key is not valid UTF-8 without NUL")) return false;
          children_.push_back(offsets_.size() - 1);
        }
        for (const auto& entry : d) {
          if (!WriteObject(entry.second, depth + 1)) return false;
          children_.push_back(offsets_.size() - 1);
        }
        return WriteContainer(kDictionary, base, d.size());
      }
      default:
        return Refuse(std::string(KindName(v.kind())) + " cannot be stored in a property list");
    }
  }

  bool Refuse(std::string reason) {
    error_ = std::move(reason);
    return false;
  }

  // Writes the container whose children's indices are children_[base...].
  bool WriteContainer(uint8_t type, size_t base, uint64_t count) {
    if (!Reserve(kMaxObjectHeader + (children_.size() - base) * refSize_)) return false;
    BeginObject(type, count);
    for (size_t i = base; i < children_.size(); ++i) Put(children_[i], refSize_);
    children_.resize(base);
    return true;
  }

  bool WriteNumber(const Number& n) {
    if (!Reserve(1 + 16)) return false;
    switch (n.type()) {
      case Number::Type::Bool:
        BeginObject(kSimple | (n.boolValue() ? 9 : 8));
        return true;
      case Number::Type::Float:
      case Number::Type::Double:
        BeginObject(kReal | 3);
        PutDouble(n.doubleValue());
        return true;
      case Number::Type::UInt64:
        if (n.uint64Value() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
          BeginObject(kInteger | 4);
          Put(0, 8);
          Put(n.uint64Value(), 8);
          return true;
        }
        break;
      default:
        break;
    }
    const int64_t v = n.int64Value();
    if (v < 0) {
      BeginObject(kInteger | 3);
      Put(static_cast<uint64_t>(v), 8);
    } else {
      PutInteger(static_cast<uint64_t>(v));
    }
    return true;
  }

  // Writes a string object: ASCII as bytes, anything else as UTF-16.
  // Refuses with `invalid` a string that is not well-formed UTF-8 or holds a
  // NUL, which no reader could tell from the end of a C string.
  bool WriteString(std::string_view s, const char* invalid) {
    const bool ascii = IsAsciiWithoutNul(s);
    // A UTF-16 unit per UTF-8 byte at most.
    if (!Reserve(kMaxObjectHeader + (ascii ? 1 : 2) * uint64_t{s.size()})) return false;
    if (ascii) {
      BeginObject(kAsciiString, s.size());
      PutBytes(s.data(), s.size());
      return true;
    }
    // Convert into the buffer after the widest header, then write the
    // header with the number of units and move the units next to it.
    uint8_t* units = out_.data() + pos_ + kMaxObjectHeader;
    size_t count = 0;
    const int32_t length = static_cast<int32_t>(s.size());
    for (int32_t i = 0; i < length;) {
      UChar32 c;
      U8_NEXT(s.data(), i, length, c);
      if (c <= 0) return Refuse(invalid);
      if (U_IS_BMP(c)) {
        WriteBigEndian(units + 2 * count++, static_cast<uint16_t>(c), 2);
      } else {
        WriteBigEndian(units + 2 * count++, U16_LEAD(c), 2);
        WriteBigEndian(units + 2 * count++, U16_TRAIL(c), 2);
      }
    }
    const size_t start = pos_;
    BeginObject(kUtf16String, count);
    std::memmove(out_.data() + pos_, out_.data() + start + kMaxObjectHeader, 2 * count);
    pos_ += 2 * count;
    return true;
  }

  // Records the object's offset and writes its marker, with `length` in
  // the low nibble or after it.
  void BeginObject(uint8_t marker) {
    offsets_.push_back(pos_);
    out_[pos_++] = marker;
  }
  void BeginObject(uint8_t type, uint64_t length) {
    if (length < kExtendedLength) {
      BeginObject(static_cast<uint8_t>(type | length));
      return;
    }
    BeginObject(type | kExtendedLength);
    out_[pos_++] = kInteger | IntegerSizeNibble(length);
    Put(length, IntegerWidth(length));
  }

  void PutInteger(uint64_t v) {
    BeginObject(kInteger | IntegerSizeNibble(v));
    Put(v, IntegerWidth(v));
  }

  void PutDouble(double d) {
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    Put(bits, 8);
  }

  void Put(uint64_t v, size_t n) {
    WriteBigEndian(out_.data() + pos_, v, n);
    pos_ += n;
  }

  void PutBytes(const void* p, size_t n) {
    if (n) std::memcpy(out_.data() + pos_, p, n);
    pos_ += n;
  }

  size_t refSize_ = 0;
  std::vector<uint8_t> out_;
  size_t pos_ = 0;
  std::vector<uint64_t>& offsets_;   // by object index
  std::vector<uint64_t>& children_;  // indices of written children not yet referenced
  std::string error_;
};

}  // namespace

std::vector<uint8_t> EncodeBinaryPropertyList(const Value& value, std::string* error) {
  thread_local Scratch scratch;
  std::vector<uint8_t> bytes = Writer(scratch).Write(value, error);
  scratch.trim();
  return bytes;
}

}  // namespace kx
