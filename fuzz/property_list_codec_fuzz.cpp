// Differential: the same bytes go to our binary property-list reader and to
// libplist. Both must accept or both refuse, and what both accept must be
// the same value; what we accept must also write again into bytes that
// libplist reads as that value.
//
// Deliberate differences, where we refuse what libplist accepts:
// - Limits: input size, nesting depth, the size of the tree shared
//   references expand to, reference cycles. libplist is not given such
//   inputs at all: they are what the limits keep away from a decoder.
// - Offset or reference sizes outside 1 to 8 bytes (libplist 2.2 takes a
//   reference size of 47, for one), and lengths given by integers wider
//   than 8 bytes (libplist reads a 32-byte one).
// - Objects at offsets inside the header, whose bytes ("bplist00") some
//   readers take for objects; and so an offset table that starts within the
//   header's eight bytes, before which objects could only be in the header.
// - What the value model cannot hold: object types other than booleans,
//   integers, reals, dates, data, strings, arrays and dictionaries (null,
//   fill, UIDs, sets), 16-byte integers beyond 64 unsigned bits, dates that
//   are not finite or further than 1e15 s from the reference date, strings
//   that are not well-formed ASCII or UTF-16 or that hold a NUL.
// One difference the other way: libplist 2.2 refuses an empty UTF-16
// string, a valid object, whether its length is in the marker (0x60) or in
// a following integer (0x6F 0x1n and 2^n zero bytes). When libplist refuses
// what we read, both readers get a second chance with every such object
// turned into the empty ASCII string (0x50 or 0x5F with the same integer),
// the same value in the same size. Objects may
// overlap, so the change can alter another object too; both readers then
// see the same altered bytes, and when ours refuses them the input is
// passed over.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "base/bplist_format.h"
#include "base/property_list.h"
#include "tests/support/libplist_oracle.h"

namespace {

bool IsDeliberateRefusal(std::string_view reason) {
  for (std::string_view deliberate :
       {"property list too large", "nesting too deep", "too many objects", "too much content",
        "reference cycle", "bad offset or reference size", "length wider than 8 bytes",
        "object offset inside the header",
        "no room for objects before the offset table", "unsupported object type",
        "integer out of range", "bad date", "bad ASCII string", "bad UTF-16 string"}) {
    if (reason == deliberate) return true;
  }
  return false;
}

// Whether the object at `offset` (before `end`) is an empty UTF-16 string.
bool IsEmptyUtf16String(std::span<const uint8_t> bytes, uint64_t offset, uint64_t end) {
  const uint8_t marker = bytes[offset];
  if (marker == kx::bplist::kUtf16String) return true;
  if (marker != (kx::bplist::kUtf16String | 0x0F) || offset + 2 > end) return false;
  // The length follows as an integer object of 1, 2, 4 or 8 bytes.
  const uint8_t lengthMarker = bytes[offset + 1];
  if ((lengthMarker & 0xF0) != 0x10 || (lengthMarker & 0x0F) > 3) return false;
  const uint64_t lengthSize = uint64_t{1} << (lengthMarker & 0x0F);
  if (offset + 2 + lengthSize > end) return false;
  return kx::bplist::ReadBigEndian(bytes.data() + offset + 2, lengthSize) == 0;
}

// `bytes` (which our reader accepted) with every object that is an empty
// UTF-16 string made an empty ASCII string.
std::vector<uint8_t> EmptyUtf16AsAscii(std::span<const uint8_t> bytes) {
  using kx::bplist::ReadBigEndian;
  std::vector<uint8_t> out(bytes.begin(), bytes.end());
  const uint8_t* trailer = bytes.data() + bytes.size() - kx::bplist::kTrailerSize;
  const size_t offsetSize = trailer[6];
  const uint64_t count = ReadBigEndian(trailer + 8, 8);
  const uint64_t table = ReadBigEndian(trailer + 24, 8);
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t offset = ReadBigEndian(bytes.data() + table + i * offsetSize, offsetSize);
    // Only the marker's type nibble changes: 0x60 -> 0x50, 0x6F -> 0x5F.
    if (offset < table && IsEmptyUtf16String(bytes, offset, table))
      out[offset] = static_cast<uint8_t>(kx::bplist::kAsciiString | (bytes[offset] & 0x0F));
  }
  return out;
}

[[noreturn]] void Disagree(const std::string& what) {
  std::fprintf(stderr, "property_list_codec: %s\n", what.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);
  kx::PropertyListResult ours = kx::DecodeBinaryPropertyList(bytes);
  if (!ours.ok() && IsDeliberateRefusal(ours.error)) return 0;
  kx::test::LibplistNode theirs = kx::test::LibplistRead(bytes);
  if (ours.ok() && !theirs) {
    const std::vector<uint8_t> patched = EmptyUtf16AsAscii(bytes);
    ours = kx::DecodeBinaryPropertyList(patched);
    if (!ours.ok()) return 0;
    theirs = kx::test::LibplistRead(patched);
  }
  if (!ours.ok()) {
    if (theirs) Disagree("libplist accepts what we refuse: " + ours.error);
    return 0;
  }
  if (!theirs) Disagree("libplist refuses what we accept");
  if (std::string d = kx::test::LibplistDifference(ours.value, theirs.get()); !d.empty()) {
    Disagree("values differ at " + d);
  }

  std::string error;
  const std::vector<uint8_t> again = kx::EncodeBinaryPropertyList(ours.value, &error);
  if (!error.empty()) Disagree("what we read does not write again: " + error);
  const kx::test::LibplistNode reread = kx::test::LibplistRead(again);
  if (!reread) Disagree("libplist refuses what we wrote");
  if (std::string d = kx::test::LibplistDifference(ours.value, reread.get()); !d.empty()) {
    Disagree("what we wrote reads differently at " + d);
  }
  return 0;
}
