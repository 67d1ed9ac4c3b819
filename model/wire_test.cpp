#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "model/wire_codable.h"
#include "model/wire_reader.h"
#include "model/wire_writer.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A record with one varint (field 1) and one string (field 2), enough to
// exercise nested messages.
class Pair : public WireCodable {
 public:
  uint64_t number = 0;
  std::string text;

  std::string className() const override { return "Pair"; }
  void writeTo(WireWriter& w) const override {
    w.writeVarintField(1, number);
    if (!text.empty()) w.writeStringField(2, text);
  }
  bool readFrom(WireReader& r) override {
    while (r.hasMoreData() && !r.hasError()) {
      uint64_t key = r.readKey();
      if (r.hasError() || WireReader::WireTypeOfKey(key) == WireType::EndGroup) break;
      switch (key >> 3) {
        case 1: number = r.readUInt64(); break;
        case 2: text = r.readString(); break;
        default:
          if (!r.skipField(key)) return false;
      }
    }
    return !r.hasError();
  }
};

Bytes SampleMessage() {
  WireWriter w;
  w.writeVarintField(1, 150);
  w.writeStringField(2, "testing");
  w.writeDoubleField(3, 1.0);
  w.writeInt32Field(4, -1);
  w.writeBoolField(5, true);
  Pair inner;
  inner.number = 1;
  w.writeMessageField(6, inner);
  w.writeKey(7, WireType::Fixed32);
  w.writeFixed32(0x12345678);
  return w.copyData();
}

const Bytes kSampleGolden = {
    0x08, 0x96, 0x01,                                            // 1: varint 150
    0x12, 0x07, 't', 'e', 's', 't', 'i', 'n', 'g',               // 2: "testing"
    0x19, 0, 0, 0, 0, 0, 0, 0xf0, 0x3f,                          // 3: double 1.0
    0x20, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01,  // 4: int32 -1
    0x28, 0x01,                                                  // 5: true
    0x32, 0x02, 0x08, 0x01,                                      // 6: {1: 1}
    0x3d, 0x78, 0x56, 0x34, 0x12,                                // 7: fixed32
};

TEST(WireWriterTest, EncodesGoldenBytes) {
  EXPECT_EQ(SampleMessage(), kSampleGolden);
  WireWriter w;
  w.writeVarint(0);
  w.writeVarint(127);
  w.writeVarint(128);
  w.writeVarint(UINT64_MAX);
  EXPECT_EQ(w.copyData(), (Bytes{0x00, 0x7f, 0x80, 0x01, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                 0xff, 0xff, 0xff, 0x01}));
  for (uint64_t v : {uint64_t{0}, uint64_t{127}, uint64_t{128}, uint64_t{16383}, uint64_t{16384},
                     UINT64_MAX}) {
    WireWriter one;
    one.writeVarint(v);
    EXPECT_EQ(WireWriter::VarintSize(v), one.size()) << v;
  }
}

TEST(WireReaderTest, DecodesGoldenBytes) {
  WireReader r(kSampleGolden);
  EXPECT_EQ(r.readKey(), 0x08u);
  EXPECT_EQ(r.readUInt32(), 150u);
  EXPECT_EQ(r.readKey(), 0x12u);
  EXPECT_EQ(r.readStringView(), "testing");
  EXPECT_EQ(r.readKey(), 0x19u);
  EXPECT_EQ(r.readDouble(), 1.0);
  EXPECT_EQ(r.readKey(), 0x20u);
  EXPECT_EQ(r.readInt32(), -1);
  EXPECT_EQ(r.readKey(), 0x28u);
  EXPECT_TRUE(r.readBool());
  EXPECT_EQ(r.readKey(), 0x32u);
  WireReaderMark mark;
  ASSERT_TRUE(r.placeMark(&mark));
  Pair inner;
  EXPECT_TRUE(inner.readFrom(r));
  EXPECT_EQ(inner.number, 1u);
  r.recallMark(mark);
  EXPECT_EQ(r.readKey(), 0x3du);
  EXPECT_EQ(r.readFixed32(), 0x12345678u);
  EXPECT_FALSE(r.hasMoreData());
  EXPECT_FALSE(r.hasError());
}

TEST(WireReaderTest, OverlongVarintYieldsZeroWithoutError) {
  // Ten continuation bytes: the value is 0 and all ten are consumed.
  Bytes fast(10, 0xff);
  fast.push_back(0x05);
  WireReader r(fast);
  EXPECT_EQ(r.readVarint(), 0u);
  EXPECT_EQ(r.position(), 10u);
  EXPECT_FALSE(r.hasError());
  EXPECT_EQ(r.readVarint(), 5u);

  Bytes exact(10, 0x80);
  WireReader e(exact);
  EXPECT_FALSE(e.readBool());
  EXPECT_EQ(e.position(), 10u);
  EXPECT_FALSE(e.hasError());

  Bytes cut(9, 0xff);
  WireReader c(cut);
  EXPECT_EQ(c.readVarint(), 0u);
  EXPECT_TRUE(c.hasError());
  EXPECT_FALSE(c.readBool());
}

TEST(WireReaderTest, ShortFixedAndLengthFieldsSetTheErrorFlag) {
  Bytes seven(7, 0x11);
  WireReader d(seven);
  EXPECT_EQ(d.readDouble(), 0.0);
  EXPECT_TRUE(d.hasError());
  EXPECT_EQ(d.position(), 0u);

  Bytes longString = {0x05, 'a', 'b'};
  WireReader s(longString);
  EXPECT_EQ(s.readString(), "");
  EXPECT_TRUE(s.hasError());

  // A length near 2^64 must not wrap the bounds check.
  Bytes huge = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01, 'x'};
  WireReader h(huge);
  WireReaderMark mark;
  EXPECT_FALSE(h.placeMark(&mark));
  EXPECT_TRUE(h.hasError());
  EXPECT_EQ(h.length(), huge.size());
}

// Reads every field of `bytes`, skipping the unknown ones and descending into
// field 6 through a mark. True when the whole input decoded cleanly.
bool ReadAll(const Bytes& bytes) {
  WireReader r(bytes.data(), bytes.size());
  while (r.hasMoreData() && !r.hasError()) {
    uint64_t key = r.readKey();
    if (r.hasError()) break;
    if ((key >> 3) == 6) {
      WireReaderMark mark;
      if (!r.placeMark(&mark)) return false;
      Pair inner;
      if (!inner.readFrom(r)) return false;
      r.recallMark(mark);
    } else if (!r.skipField(key)) {
      return false;
    }
    if (r.position() > r.length()) return false;
  }
  return !r.hasError();
}

TEST(WireReaderTest, EveryTruncationFailsCleanly) {
  // Each prefix is copied into an allocation of exactly its size, so any read
  // past the end is caught by the address sanitizer. Only prefixes that end
  // on a field boundary decode cleanly.
  const std::vector<size_t> boundaries = {0, 3, 12, 21, 32, 34, 38, 43};
  for (size_t n = 0; n <= kSampleGolden.size(); ++n) {
    Bytes prefix(kSampleGolden.begin(), kSampleGolden.begin() + static_cast<long>(n));
    bool clean = std::find(boundaries.begin(), boundaries.end(), n) != boundaries.end();
    EXPECT_EQ(ReadAll(prefix), clean) << "prefix " << n;
  }
}

TEST(WireReaderTest, MarksConfineAndRestoreTheLimit) {
  // A nested message longer than 127 bytes needs a two-byte length, which
  // the writer patches in after moving the body.
  Pair big;
  big.number = 7;
  big.text = std::string(300, 'z');
  WireWriter w;
  w.writeMessageField(1, big);
  w.writeVarintField(2, 9);
  Bytes bytes = w.copyData();
  // Body: 2 bytes for field 1, 1 + 2 + 300 for field 2: 305 = varint b1 02.
  ASSERT_EQ(bytes[1], 0xb1);
  ASSERT_EQ(bytes[2], 0x02);
  WireReader r(bytes);
  r.readKey();
  WireReaderMark mark;
  ASSERT_TRUE(r.placeMark(&mark));
  EXPECT_EQ(r.length(), 3u + 305u);
  // Read only the first field of the nested message, then leave it.
  r.readKey();
  EXPECT_EQ(r.readUInt64(), 7u);
  r.recallMark(mark);
  EXPECT_EQ(r.length(), bytes.size());
  EXPECT_EQ(r.readKey(), 0x10u);
  EXPECT_EQ(r.readUInt64(), 9u);
  EXPECT_FALSE(r.hasMoreData());

  // A nested reader cannot run past its mark even when the nested bytes
  // claim more.
  Bytes lying = {0x0a, 0x02, 0x12, 0x05, 'a', 'b', 'c', 'd', 'e'};
  WireReader l(lying);
  l.readKey();
  ASSERT_TRUE(l.placeMark(&mark));
  Pair p;
  EXPECT_FALSE(p.readFrom(l));
  EXPECT_TRUE(l.hasError());
}

TEST(WireReaderTest, SkipsByWireType) {
  // 1: group { 2: varint, 3: group {}, 4: fixed32 } then 5: varint 1.
  Bytes grouped = {0x0b, 0x10, 0x01, 0x1b, 0x1c, 0x25, 1, 2, 3, 4, 0x0c, 0x28, 0x01};
  WireReader g(grouped);
  ASSERT_TRUE(g.skipField(g.readKey()));
  EXPECT_EQ(g.readKey(), 0x28u);

  // A group closed by another field's end-group key (the section mark) is
  // broken, and so is one that never closes.
  Bytes mismatched = {0x0b, 0x10, 0x01, 0x04};
  WireReader m(mismatched);
  EXPECT_FALSE(m.skipField(m.readKey()));
  Bytes unclosed = {0x0b, 0x10, 0x01};
  WireReader u(unclosed);
  EXPECT_FALSE(u.skipField(u.readKey()));
  EXPECT_TRUE(u.hasError());

  // Well-formed groups nested up to the limit are skipped; one level more
  // fails instead of exhausting anything.
  for (size_t depth : {WireReader::kMaxGroupDepth, WireReader::kMaxGroupDepth + 1}) {
    Bytes deep(depth, 0x0b);
    deep.insert(deep.end(), depth, 0x0c);
    WireReader d(deep);
    EXPECT_EQ(d.skipField(d.readKey()), depth == WireReader::kMaxGroupDepth) << depth;
  }

  // End-group keys and the unused wire types 6 and 7 are never skipped.
  for (uint8_t key : {0x04, 0x0e, 0x0f}) {
    Bytes b = {key, 0x00};
    WireReader r(b);
    EXPECT_FALSE(r.skipField(r.readKey())) << int(key);
  }
}

TEST(WireCodableTest, RoundTripsThroughData) {
  Pair p;
  p.number = 1234567;
  p.text = "héllo";
  auto back = WireCodable::FromData<Pair>(p.data());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->number, p.number);
  EXPECT_EQ(back->text, p.text);
  Bytes damaged = p.data();
  damaged.pop_back();
  EXPECT_EQ(WireCodable::FromData<Pair>(damaged), nullptr);
}

}  // namespace
