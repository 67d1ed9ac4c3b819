#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "kx/WireCodable.h"
#include "kx/WireReader.h"
#include "kx/WireWriter.h"

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


// The general record walk that WireReader::skipRecord must reproduce: one
// readKey and skipField per field.
bool SkipRecordByField(WireReader& r) {
  while (r.hasMoreData() && !r.hasError()) {
    const uint64_t key = r.readKey();
    if (r.hasError() || WireReader::WireTypeOfKey(key) == WireType::EndGroup) break;
    if (!r.skipField(key)) return false;
  }
  return !r.hasError();
}

// Everything a caller can observe of a reader after a walk.
struct WalkOutcome {
  bool ok;
  size_t position;
  size_t length;
  bool error;
  size_t endGroupEnd;
  bool operator==(const WalkOutcome&) const = default;
};
WalkOutcome OutcomeOf(bool ok, const WireReader& r) {
  return {ok, r.position(), r.length(), r.hasError(), r.endGroupEnd()};
}

// A record with every shape the fast walk distinguishes: one- and two-byte
// keys, one- and two-byte lengths, varints of 1 to 10 bytes, both fixed
// widths and unknown fields; with `rare`, also a group and a three-byte key,
// which the fast walk leaves to the general code.
Bytes VariedRecord(bool rare = true) {
  WireWriter w;
  w.writeStringField(1, "Quarterly budget review");
  w.writeStringField(3, std::string(150, 's'));  // two-byte length
  w.writeVarintField(6, 0xF123456789ABCDEFULL);  // ten-byte varint
  w.writeVarintField(6, 0x0123456789ABCDEFULL);  // nine-byte varint
  w.writeInt32Field(8, -1);
  w.writeVarintField(9, 2);
  w.writeStringField(17, "com.orvex.mail");  // two-byte key
  w.writeVarintField(25, uint64_t{1} << 40);
  w.writeDoubleField(29, 0.25);
  w.writeKey(11, WireType::Fixed32);
  w.writeFixed32(7);
  if (rare) {
    w.writeKey(12, WireType::StartGroup);
    w.writeVarintField(1, 5);
    w.writeKey(12, WireType::EndGroup);
    w.writeStringField(3000, "far");  // three-byte key
  }
  w.writeBoolField(30, true);
  return w.copyData();
}

// Compares skipRecord with the field-by-field walk on `bytes` (copied into an
// allocation of exactly its size, so the address sanitizer sees any read
// past the end), also from a few positions inside it.
void ExpectSkipRecordAgrees(const Bytes& bytes, const std::string& what) {
  const std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size() + 1]);
  std::copy(bytes.begin(), bytes.end(), exact.get());
  WireReader general(exact.get(), bytes.size());
  WireReader fast(exact.get(), bytes.size());
  const bool generalOk = SkipRecordByField(general);
  const bool fastOk = fast.skipRecord();
  EXPECT_EQ(OutcomeOf(fastOk, fast), OutcomeOf(generalOk, general)) << what;
}

TEST(WireReaderTest, SkipRecordAgreesWithTheFieldByFieldWalkOnEveryCut) {
  const Bytes all = VariedRecord();
  WireReader whole(all.data(), all.size());
  ASSERT_TRUE(whole.skipRecord());
  EXPECT_EQ(whole.position(), all.size());
  for (size_t cut = 0; cut <= all.size(); ++cut) {
    ExpectSkipRecordAgrees(Bytes(all.begin(), all.begin() + static_cast<long>(cut)),
                           "cut at " + std::to_string(cut));
  }
}

TEST(WireReaderTest, SkipRecordAgreesWithTheFieldByFieldWalkOnDamagedBytes) {
  const Bytes all = VariedRecord();
  // Every byte replaced by values that turn it into an end-group key, a
  // continuation byte, a bad wire type, a group start, a long length or key 0.
  const uint8_t kReplacements[] = {0x00, 0x04, 0x0C, 0x0E, 0x0F, 0x0B, 0x7F, 0x80, 0xFF, 0x3A};
  for (size_t i = 0; i < all.size(); ++i) {
    for (uint8_t b : kReplacements) {
      Bytes damaged = all;
      damaged[i] = b;
      ExpectSkipRecordAgrees(damaged, "byte " + std::to_string(i) + " = " + std::to_string(b));
    }
  }
  const std::vector<Bytes> hostile = {
      // A key of ten continuation bytes reads as key 0 (a varint) and
      // consumes them; the next byte is its value.
      {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x03, 0x08, 0x01},
      // Over-long key whose first byte looks like a length-delimited key.
      {0x8A, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01, 0x10},
      // Over-long value varint, then a field.
      {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x10, 0x01},
      {0x12, 0x05, 'a'},               // length past the end
      {0x12, 0xFF, 0xFF, 0x03, 'a'},   // three-byte length past the end
      {0x12, 0x80},                    // cut length
      {0x0E},                          // wire type 6
      {0x08, 0x01, 0x04, 0x08, 0x01},  // end-group key in the middle
      {0x1B, 0x08, 0x01, 0x24},        // group 3 closed by end-group 4
      {0x1B, 0x08, 0x01, 0x1C, 0x10},  // group 3 closed properly
      {0x1B, 0x08, 0x01},              // group never closed
      {0x09, 1, 2, 3, 4, 5, 6, 7},     // short fixed64
      {0x0D, 1, 2, 3},                 // short fixed32
  };
  for (size_t i = 0; i < hostile.size(); ++i) {
    ExpectSkipRecordAgrees(hostile[i], "hostile input " + std::to_string(i));
    for (size_t cut = 0; cut < hostile[i].size(); ++cut) {
      ExpectSkipRecordAgrees(Bytes(hostile[i].begin(), hostile[i].begin() + static_cast<long>(cut)),
                             "hostile input " + std::to_string(i) + " cut at " +
                                 std::to_string(cut));
    }
  }
}

// A walk over outer records ended by end-group keys, one after another as in
// the packed stream, with records nested in field 2: with placeMark,
// skipRecord and recallMark per nested record, or with
// skipPlainNestedRecords taking what it can before each key.
bool WalkOuterRecord(WireReader& r, bool plainFirst) {
  bool ok = true;
  while (ok) {
    if (plainFirst) r.skipPlainNestedRecords(0x12);
    if (!r.hasMoreData() || r.hasError()) break;
    const uint64_t key = r.readKey();
    if (r.hasError() || WireReader::WireTypeOfKey(key) == WireType::EndGroup) break;
    if ((key >> 3) == 2) {
      WireReaderMark mark;
      ok = r.placeMark(&mark) && r.skipRecord();
      if (ok) r.recallMark(mark);
    } else {
      ok = r.skipField(key);
    }
  }
  return ok && !r.hasError();
}

WalkOutcome WalkNested(const Bytes& bytes, bool plainFirst) {
  WireReader r(bytes.data(), bytes.size());
  bool ok = true;
  while (ok && r.hasMoreData() && !r.hasError()) ok = WalkOuterRecord(r, plainFirst);
  return OutcomeOf(ok && !r.hasError(), r);
}

TEST(WireReaderTest, SkippingPlainNestedRecordsLeavesTheReaderAsTheGeneralWalk) {
  const Bytes record = VariedRecord();
  const Bytes plain = VariedRecord(false);
  WireWriter w;
  w.writeVarintField(1, 14);
  w.writeDataField(2, plain);
  w.writeDataField(2, plain);
  w.writeDataField(2, record);  // needs the general rules
  w.writeDataField(2, plain);
  w.writeKey(0, WireType::EndGroup);
  w.writeDataField(2, plain);
  const Bytes stream = w.copyData();
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    Bytes prefix(stream.begin(), stream.begin() + static_cast<long>(cut));
    EXPECT_EQ(WalkNested(prefix, true), WalkNested(prefix, false)) << "cut at " << cut;
  }
  for (size_t i = 0; i < stream.size(); ++i) {
    for (uint8_t b : {0x00, 0x04, 0x12, 0x80, 0xFF}) {
      Bytes damaged = stream;
      damaged[i] = b;
      EXPECT_EQ(WalkNested(damaged, true), WalkNested(damaged, false))
          << "byte " << i << " = " << int(b);
    }
  }
  // The fast walk does take the plain records: it stops before the third.
  WireReader r(stream.data(), stream.size());
  r.readVarint();
  r.readVarint();
  r.skipPlainNestedRecords(0x12);
  const size_t nested = 1 + 2 + plain.size();
  EXPECT_EQ(r.position(), 2 + 2 * nested);
}

}  // namespace
