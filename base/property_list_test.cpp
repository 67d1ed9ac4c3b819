#include "base/property_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <thread>

#include "tests/support/libplist_oracle.h"

namespace kx {
namespace {

// Assembles a bplist00 from raw objects; references are one byte wide
// unless `refSize` says otherwise.
struct RawPlist {
  std::vector<std::vector<uint8_t>> objects;
  uint64_t top = 0;
  uint8_t refSize = 1;

  size_t add(std::vector<uint8_t> object) {
    objects.push_back(std::move(object));
    return objects.size() - 1;
  }
  static std::vector<uint8_t> Array(std::initializer_list<uint8_t> refs) {
    std::vector<uint8_t> o{static_cast<uint8_t>(0xA0 | refs.size())};
    o.insert(o.end(), refs);
    return o;
  }
  std::vector<uint8_t> bytes() const {
    std::vector<uint8_t> out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<uint64_t> offsets;
    for (const auto& o : objects) {
      offsets.push_back(out.size());
      out.insert(out.end(), o.begin(), o.end());
    }
    const uint64_t table = out.size();
    for (uint64_t off : offsets) {
      out.push_back(static_cast<uint8_t>(off >> 8));
      out.push_back(static_cast<uint8_t>(off));
    }
    std::vector<uint8_t> trailer(32, 0);
    trailer[6] = 2;
    trailer[7] = refSize;
    auto put = [&](size_t at, uint64_t v) {
      for (int i = 0; i < 8; ++i) trailer[at + 7 - i] = static_cast<uint8_t>(v >> (8 * i));
    };
    put(8, objects.size());
    put(16, top);
    put(24, table);
    out.insert(out.end(), trailer.begin(), trailer.end());
    return out;
  }
};

Value RoundTrip(const Value& v) {
  std::string error;
  std::vector<uint8_t> bytes = EncodeBinaryPropertyList(v, &error);
  EXPECT_EQ(error, "");
  PropertyListResult r = DecodeBinaryPropertyList(bytes);
  EXPECT_TRUE(r.ok()) << r.error;
  return r.value;
}

Value Sample() {
  Dictionary d = MakeDictionary({
      {"bool", true},
      {"false", false},
      {"int", -42},
      {"big", std::numeric_limits<int64_t>::min()},
      {"ubig", std::numeric_limits<uint64_t>::max()},
      {"real", 2.5},
      {"tiny", 1e-300},
      {"ascii", "hello"},
      {"unicode", "h\xC3\xA9llo \xF0\x9F\x98\x80"},
      {"empty", ""},
      {"data", Value::DataFrom("\x00\x01\xFF", 3)},
      {"nodata", Value(Value::Bytes{})},
      {"date", Date{-1234.000123456}},
      {"array", Array{1, "two", Array{}, Dictionary{}}},
  });
  d["h\xC3\xA9"] = Value(7);
  return Value(std::move(d));
}

TEST(PropertyListTest, RoundTripsEveryType) {
  const Value v = Sample();
  const Value back = RoundTrip(v);
  EXPECT_EQ(back, v) << back.description();
  // Exact dates, not libplist's microseconds.
  EXPECT_EQ(back["date"].date()->secondsSinceReferenceDate, -1234.000123456);
  EXPECT_EQ(back["ubig"].number()->type(), Number::Type::UInt64);
  EXPECT_EQ(back["ubig"].number()->uint64Value(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(back["big"].number()->int64Value(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(back["empty"].string()->size(), 0u);
  EXPECT_EQ(back["nodata"].kind(), Value::Kind::Data);
}

TEST(PropertyListTest, RoundTripsListsWithWideOffsets) {
  // Past 64 KiB the writer uses 3-byte offsets.
  Array items;
  for (int i = 0; i < 3000; ++i) items.push_back(Value(Value::Bytes(40, static_cast<uint8_t>(i))));
  items.push_back(Value(Date{0.25}));
  const Value v(std::move(items));
  EXPECT_EQ(RoundTrip(v), v);
}

TEST(PropertyListTest, NumberTypesDecodeAsBoolInt64OrDouble) {
  Array in{Value(Number::Int16(-3)), Value(Number::UInt32(7)), Value(Number::Float(0.5f)),
           Value(true), Value(Number::UInt64(5)), Value(Number::Char(1)), Value(-1),
           Value(Number::UInt64(uint64_t{1} << 63))};
  const Value back = RoundTrip(Value(in));
  const Number::Type expected[] = {Number::Type::Int64, Number::Type::Int64,
                                   Number::Type::Double, Number::Type::Bool,
                                   Number::Type::Int64, Number::Type::Int64,
                                   Number::Type::Int64, Number::Type::UInt64};
  ASSERT_EQ(back.count(), in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    EXPECT_EQ(back.at(i).number()->type(), expected[i]) << i;
    EXPECT_EQ(back.at(i), in[i]) << i;
  }
  // -1 and 2^64-1 share their low 64 bits but must stay apart.
  const Value mixed = RoundTrip(Value(Array{Value(-1), Value(std::numeric_limits<uint64_t>::max()),
                                            Value(-1)}));
  EXPECT_EQ(mixed.at(0).number()->int64Value(), -1);
  EXPECT_EQ(mixed.at(1).number()->type(), Number::Type::UInt64);
  EXPECT_EQ(mixed.at(2).number()->int64Value(), -1);
}

TEST(PropertyListTest, EncodingRefusesWhatAPropertyListCannotHold) {
  const Value bad[] = {
      Value(),
      Value::Null(),
      Value(*URL::WithString("http://x")),
      Value(Point{1, 2}),
      Value(Array{Value(1), Value()}),
      Value(MakeDictionary({{"k", Value(Error{"d", 1, nullptr})}})),
      Value(std::string("a\0b", 3)),
      Value("\xC3"),
      Value(MakeDictionary({{"\xFF", 1}})),
      Value(Date{std::nan("")}),
  };
  for (const Value& v : bad) {
    std::string error;
    EXPECT_TRUE(EncodeBinaryPropertyList(v, &error).empty()) << v.description();
    EXPECT_FALSE(error.empty());
  }
  // Output the reader would refuse is never written.
  std::string error;
  EXPECT_TRUE(EncodeBinaryPropertyList(Value(Value::Bytes(kMaxPropertyListBytes, 1)), &error).empty());
  EXPECT_EQ(error, "property list too large");
}

Value Nested(size_t depth) {
  Value v = Value(Array{});
  for (size_t i = 1; i < depth; ++i) v = Value(Array{v});
  return v;
}

TEST(PropertyListTest, DepthLimitAppliesBothWays) {
  EXPECT_EQ(RoundTrip(Nested(kMaxPropertyListDepth)), Nested(kMaxPropertyListDepth));
  std::string error;
  EXPECT_TRUE(EncodeBinaryPropertyList(Nested(kMaxPropertyListDepth + 1), &error).empty());
  EXPECT_EQ(error, "nesting too deep");

  // A hand-made chain of one more array than allowed.
  RawPlist p;
  for (size_t i = 0; i <= kMaxPropertyListDepth; ++i) {
    p.add(i == kMaxPropertyListDepth ? RawPlist::Array({})
                                      : RawPlist::Array({static_cast<uint8_t>(i + 1)}));
  }
  p.refSize = 1;
  PropertyListResult r = DecodeBinaryPropertyList(p.bytes());
  EXPECT_EQ(r.error, "nesting too deep");
  EXPECT_TRUE(r.value.isNil());
}

TEST(PropertyListTest, RejectsCyclesSharedBlowUpAndBadObjects) {
  auto decode = [](const RawPlist& p) { return DecodeBinaryPropertyList(p.bytes()).error; };
  RawPlist cycle;  // 0 -> 1 -> 0
  cycle.add(RawPlist::Array({1}));
  cycle.add(RawPlist::Array({0}));
  EXPECT_EQ(decode(cycle), "reference cycle");

  RawPlist self;
  self.add(RawPlist::Array({0}));
  EXPECT_EQ(decode(self), "reference cycle");

  // 40 arrays each referring twice to the next: 2^40 nodes once expanded.
  RawPlist bomb;
  for (uint8_t i = 0; i < 40; ++i) bomb.add(RawPlist::Array({uint8_t(i + 1), uint8_t(i + 1)}));
  bomb.add({0x10, 0x01});
  EXPECT_EQ(decode(bomb), "too many objects");

  // One data object referred to again and again: content up to 4 KiB, or
  // 16 times the input, expands; more is refused however small the input.
  auto sharedData = [](size_t references, size_t size) {
    RawPlist p;
    p.refSize = 2;
    std::vector<uint8_t> array = {0xAF, 0x11, static_cast<uint8_t>(references >> 8),
                                  static_cast<uint8_t>(references)};
    for (size_t i = 0; i < references; ++i) array.insert(array.end(), {0x00, 0x01});
    p.add(array);
    std::vector<uint8_t> data = {0x4F, 0x11, static_cast<uint8_t>(size >> 8),
                                 static_cast<uint8_t>(size)};
    data.resize(data.size() + size, 0x5A);
    p.add(data);
    return p;
  };
  static_assert(kMaxPropertyListSharedBytes == 4096 && kMaxPropertyListExpansion == 16);
  PropertyListResult within16 = DecodeBinaryPropertyList(sharedData(16, 1024).bytes());
  ASSERT_TRUE(within16.ok()) << within16.error;  // 16 KiB from 1,108 bytes
  EXPECT_EQ(within16.value.count(), 16u);
  EXPECT_EQ(decode(sharedData(64, 1024)), "too much content");  // 64 KiB from 1,204
  EXPECT_TRUE(DecodeBinaryPropertyList(sharedData(16, 256).bytes()).ok());  // 4 KiB from 340
  EXPECT_EQ(decode(sharedData(40, 128)), "too much content");  // 5 KiB from 260
  // 40 KiB of input standing for 16 MB.
  EXPECT_EQ(decode(sharedData(400, 40000)), "too much content");

  // Sharing within the limits is fine and expands.
  RawPlist shared;
  shared.add(RawPlist::Array({1, 1, 1}));
  shared.add({0x33, 0x41, 0xcd, 0xcd, 0x65, 0x00, 0x00, 0x00, 0x00});  // a date
  PropertyListResult ok = DecodeBinaryPropertyList(shared.bytes());
  ASSERT_TRUE(ok.ok()) << ok.error;
  EXPECT_EQ(ok.value.count(), 3u);
  EXPECT_EQ(ok.value.at(2).date()->secondsSinceReferenceDate, 1e9);

  // A chain of arrays each referring twice to the next: a tree of
  // 2^(levels+1) - 1 nodes from 44 + 5 * levels bytes. Within
  // kMaxPropertyListSharedNodes, or the input's size, it decodes; beyond
  // both it is refused although far below kMaxPropertyListNodes.
  auto chain = [](uint8_t levels) {
    RawPlist p;
    for (uint8_t i = 0; i < levels; ++i) p.add(RawPlist::Array({uint8_t(i + 1), uint8_t(i + 1)}));
    p.add({0x10, 0x01});
    return p;
  };
  static_assert(kMaxPropertyListSharedNodes == 32);
  for (uint8_t levels : {4, 5}) {  // 31 nodes from 64 bytes, 63 from 69
    PropertyListResult within = DecodeBinaryPropertyList(chain(levels).bytes());
    ASSERT_TRUE(within.ok()) << within.error;
    EXPECT_EQ(within.value.count(), 2u);
  }
  EXPECT_EQ(decode(chain(6)), "too many objects");  // 127 nodes from 74 bytes
  EXPECT_EQ(decode(chain(18)), "too many objects");

  struct Case {
    std::vector<uint8_t> object;
    const char* error;
  } cases[] = {
      {RawPlist::Array({5}), "object reference out of range"},
      {{0xD1, 1, 1, 0x10, 0x01}, "dictionary key is not a string"},
      {{0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}, "integer out of range"},
      {{0x00}, "unsupported object type"},
      {{0x80, 0x01}, "unsupported object type"},
      {{0x5F, 0x10, 0x40, 'a'}, "object extends past the object area"},
      {{0x53, 'a', 0xC3, 'b'}, "bad ASCII string"},
      {{0x61, 0xD8, 0x00}, "bad UTF-16 string"},
      {{0x33, 0x7f, 0xf0, 0, 0, 0, 0, 0, 0}, "bad date"},
      {{0x21, 0, 0}, "bad real size"},
  };
  for (const Case& c : cases) {
    RawPlist p;
    p.add(c.object);
    p.add({0x10, 0x01});
    EXPECT_EQ(decode(p), c.error);
  }
}

TEST(PropertyListTest, RejectsBadFramingAndOversizedInput) {
  std::vector<uint8_t> good = EncodeBinaryPropertyList(Sample());
  ASSERT_TRUE(DecodeBinaryPropertyList(good).ok());
  EXPECT_FALSE(DecodeBinaryPropertyList({}).ok());
  std::vector<uint8_t> v = good;
  v[7] = '1';
  EXPECT_EQ(DecodeBinaryPropertyList(v).error, "not a binary property list");
  v = good;
  v[v.size() - 26] = 9;  // offset size
  EXPECT_EQ(DecodeBinaryPropertyList(v).error, "bad offset or reference size");
  v = good;
  v[v.size() - 8] = 0xFF;  // offset table position, high byte
  EXPECT_EQ(DecodeBinaryPropertyList(v).error, "offset table out of range");
  v = good;
  v[v.size() - 1] = 8;  // the offset table right after the 8-byte header
  for (size_t i = v.size() - 8; i + 1 < v.size(); ++i) v[i] = 0;
  EXPECT_EQ(DecodeBinaryPropertyList(v).error, "no room for objects before the offset table");
  v = good;
  v[v.size() - 16] = 0xFF;  // top object, high byte
  EXPECT_EQ(DecodeBinaryPropertyList(v).error, "bad object count or top object");
  // 20 bytes of data: marker 0x4F, then the length as a one-byte integer
  // (0x10 0x14); made a 16-byte integer (0x14), it is refused, not cut.
  v = EncodeBinaryPropertyList(Value(Value::Bytes(20, 7)));
  ASSERT_EQ(v[8], 0x4F);
  ASSERT_EQ(v[9], 0x10);
  v[9] = 0x14;
  EXPECT_EQ(DecodeBinaryPropertyList(v).error, "length wider than 8 bytes");
  v[9] = 0x20;  // not an integer
  EXPECT_EQ(DecodeBinaryPropertyList(v).error, "bad length");

  std::vector<uint8_t> huge(kMaxPropertyListBytes + 1, 0);
  std::memcpy(huge.data(), good.data(), 8);
  EXPECT_EQ(DecodeBinaryPropertyList(huge).error, "property list too large");
}

// Every truncation and many random corruptions of valid lists give either an
// error or a value that encodes again; never a crash (the sanitizer builds
// turn memory errors into failures).
TEST(PropertyListTest, DamagedBytesNeverCrash) {
  const std::vector<uint8_t> corpus[] = {
      EncodeBinaryPropertyList(Sample()),
      EncodeBinaryPropertyList(Value(Array{Sample(), Sample(), Value("x")})),
      EncodeBinaryPropertyList(Nested(20)),
  };
  std::mt19937 rng(12345);
  size_t decoded = 0;
  for (const auto& good : corpus) {
    ASSERT_FALSE(good.empty());
    for (size_t n = 0; n < good.size(); ++n) {
      PropertyListResult r = DecodeBinaryPropertyList(std::span(good.data(), n));
      EXPECT_FALSE(r.ok()) << n;
      EXPECT_TRUE(r.value.isNil());
    }
    for (int round = 0; round < 3000; ++round) {
      std::vector<uint8_t> bad = good;
      const int flips = 1 + static_cast<int>(rng() % 4);
      for (int f = 0; f < flips; ++f) bad[rng() % bad.size()] ^= static_cast<uint8_t>(1 + rng() % 255);
      PropertyListResult r = DecodeBinaryPropertyList(bad);
      if (r.ok()) {
        ++decoded;
        std::string error;
        EncodeBinaryPropertyList(r.value, &error);
        EXPECT_EQ(error, "") << r.value.description();
      } else {
        EXPECT_TRUE(r.value.isNil());
      }
    }
  }
  EXPECT_GT(decoded, 0u);  // some flips land in content and stay valid
}

// Values at every boundary of the format's encodings: integer widths,
// lengths that need an extended count, reference and offset widths.
Value Boundaries() {
  Array numbers;
  for (uint64_t v : {uint64_t{0}, uint64_t{255}, uint64_t{256}, uint64_t{65535}, uint64_t{65536},
                     uint64_t{0xFFFFFFFF}, uint64_t{0x100000000}, uint64_t{INT64_MAX},
                     uint64_t{INT64_MAX} + 1, UINT64_MAX}) {
    numbers.push_back(Value(Number::UInt64(v)));
  }
  for (int64_t v : {int64_t{-1}, int64_t{-256}, int64_t{INT32_MIN}, INT64_MIN}) numbers.push_back(Value(v));
  numbers.push_back(Value(Number::Float(-0.0f)));
  numbers.push_back(Value(std::numeric_limits<double>::infinity()));
  Array strings;
  for (size_t n : {14, 15, 16, 255, 256, 70000}) {
    strings.push_back(Value(std::string(n, 'a')));
    strings.push_back(Value(std::string(n / 2, 'a') + "\xE2\x82\xAC"));  // one UTF-16 unit more
    strings.push_back(Value(Value::Bytes(n, 7)));
  }
  Array many;  // more than 255 objects: 2-byte references
  for (int i = 0; i < 300; ++i) many.push_back(Value(Dictionary{}));
  Dictionary wide;
  for (int i = 0; i < 20; ++i) wide["k" + std::to_string(i)] = Value(Array{});
  return Value(MakeDictionary({{"numbers", numbers}, {"strings", strings}, {"many", many},
                               {"wide", wide}, {"sample", Sample()}}));
}

// Random trees of every kind the format holds, from a fixed seed.
class RandomValues {
 public:
  explicit RandomValues(uint32_t seed) : rng_(seed) {}

  Value next(int depth = 0) {
    switch (pick(depth < 4 ? 9 : 7)) {
      case 0: return Value(pick(2) == 0);
      case 1: return Value(Number::Int64(static_cast<int64_t>(rng_()) >> pick(64)));
      case 2: return Value(Number::UInt64(rng_() | (pick(2) ? uint64_t{1} << 63 : 0)));
      case 3: return Value(std::ldexp(static_cast<double>(rng_()), static_cast<int>(pick(200)) - 100));
      case 4: return Value(Date{static_cast<double>(static_cast<int32_t>(rng_())) + pick(1000000) * 1e-6});
      case 5: {
        Value::Bytes b(pick(40));
        for (uint8_t& c : b) c = static_cast<uint8_t>(rng_());
        return Value(std::move(b));
      }
      case 6: return Value(text());
      case 7: {
        Array a;
        for (size_t n = pick(20); n > 0; --n) a.push_back(next(depth + 1));
        return Value(std::move(a));
      }
      default: {
        Dictionary d;
        for (size_t n = pick(20); n > 0; --n) d[text()] = next(depth + 1);
        return Value(std::move(d));
      }
    }
  }

 private:
  size_t pick(size_t n) { return static_cast<size_t>(rng_() % n); }
  std::string text() {
    static const char* const kPieces[] = {"a", "Z", "0", " ", "\xC3\xA9", "\xE6\x97\xA5",
                                          "\xF0\x9F\x98\x80", "\xEF\xBF\xBF", "\x7F"};
    std::string s;
    for (size_t n = pick(24); n > 0; --n) s += kPieces[pick(std::size(kPieces))];
    return s;
  }
  std::mt19937_64 rng_;
};

// libplist reads what we write as the value we wrote, and we read what it
// writes (which shares equal strings and numbers between references) as
// the value it holds.
TEST(PropertyListTest, AgreesWithLibplistBothWays) {
  std::vector<Value> values = {Boundaries(), Value(Array{}), Value(Dictionary{}), Value(""),
                               Value(Nested(kMaxPropertyListDepth))};
  RandomValues random(20261123);
  for (int i = 0; i < 200; ++i) values.push_back(random.next());
  for (const Value& v : values) {
    const std::vector<uint8_t> ours = EncodeBinaryPropertyList(v);
    ASSERT_FALSE(ours.empty()) << v.description();
    EXPECT_EQ(RoundTrip(v), v);
    test::LibplistNode read = test::LibplistRead(ours);
    ASSERT_TRUE(read) << v.description();
    EXPECT_EQ(test::LibplistDifference(v, read.get()), "");

    test::LibplistNode tree = test::ToLibplist(v);
    const std::vector<uint8_t> theirs = test::LibplistWrite(tree.get());
    PropertyListResult r = DecodeBinaryPropertyList(theirs);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(test::LibplistDifference(r.value, tree.get()), "");
  }
}

// The writer keeps index tables per thread; threads writing at once must
// not share them.
TEST(PropertyListTest, ThreadsEncodeAtOnce) {
  const Value small = Sample();
  const Value large = Boundaries();  // more than 256 objects: written twice
  const std::vector<uint8_t> expectedSmall = EncodeBinaryPropertyList(small);
  const std::vector<uint8_t> expectedLarge = EncodeBinaryPropertyList(large);
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const bool big = (i + t) % 2 == 0;
        if (EncodeBinaryPropertyList(big ? large : small) != (big ? expectedLarge : expectedSmall)) ++mismatches;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace kx
