#include "kx/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>
#include <unordered_set>

namespace kx {
namespace {

TEST(NumberTest, RemembersStoredTypeAndComparesNumerically) {
  EXPECT_EQ(Value(true).number()->type(), Number::Type::Bool);
  EXPECT_EQ(Value(int64_t{1}).number()->type(), Number::Type::Int64);
  EXPECT_EQ(Value(Number::Int16(1)).number()->type(), Number::Type::Int16);
  EXPECT_EQ(Value(1).number()->type(), Number::Type::Int32);
  EXPECT_EQ(Value(1u).number()->type(), Number::Type::UInt32);

  // 1 == 1.0 == true, across every stored type, with equal hashes.
  const Value ones[] = {Value(true), Value(1), Value(1.0), Value(Number::Float(1.0f)),
                        Value(Number::UInt16(1)), Value(Number::Char(1)), Value(uint64_t{1})};
  for (const Value& a : ones) {
    for (const Value& b : ones) {
      EXPECT_EQ(a, b) << a.description() << " " << b.description();
      EXPECT_EQ(a.hash(), b.hash());
    }
  }
  // Exact comparison where doubles would round.
  const int64_t max = std::numeric_limits<int64_t>::max();
  EXPECT_NE(Value(max), Value(static_cast<double>(max)));  // 2^63 - 1 vs 2^63
  EXPECT_EQ(Value(uint64_t{1} << 63), Value(9223372036854775808.0));
  EXPECT_NE(Value(int64_t{-1}), Value(std::numeric_limits<uint64_t>::max()));
  EXPECT_NE(Value(1.5), Value(1));
  EXPECT_EQ(Value(-0.0), Value(0));
  EXPECT_EQ(Value(-0.0).hash(), Value(0).hash());
  // NaN equals itself so that values stay usable as hashed keys.
  EXPECT_EQ(Value(std::nan("")), Value(std::nan("")));
}

TEST(NumberTest, ConversionsFollowCAndSaturateOutOfRangeReals) {
  EXPECT_EQ(Number::Double(3.9).intValue(), 3);
  EXPECT_EQ(Number::Double(-3.9).int64Value(), -3);
  EXPECT_EQ(Number::Double(1e30).int64Value(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Number::Double(-1e30).intValue(), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(Number::Double(std::nan("")).int64Value(), 0);
  EXPECT_EQ(Number::Int64(int64_t{1} << 32 | 5).intValue(), 5);
  EXPECT_EQ(Number::Int16(-1).uint32Value(), 0xFFFFFFFFu);
  EXPECT_EQ(Number::UInt64(std::numeric_limits<uint64_t>::max()).doubleValue(), 18446744073709551616.0);
  EXPECT_TRUE(Number::Double(0.1).boolValue());
  EXPECT_FALSE(Number::Double(-0.0).boolValue());
  EXPECT_EQ(Number::Float(0.1f).description(), "0.1");
  EXPECT_EQ(Number::Double(0.1).description(), "0.1");
  EXPECT_EQ(Number::UInt64(std::numeric_limits<uint64_t>::max()).description(),
            "18446744073709551615");
}

TEST(ValueTest, KeepsAbsentNullAndEmptyApart) {
  const Value nil, null = Value::Null(), empty(""), fromNull(static_cast<const char*>(nullptr));
  EXPECT_TRUE(nil.isNil());
  EXPECT_FALSE(static_cast<bool>(nil));
  EXPECT_TRUE(fromNull.isNil());
  EXPECT_TRUE(Value(ObjectRef()).isNil());
  EXPECT_TRUE(null.isNull());
  EXPECT_NE(nil, null);
  EXPECT_NE(null, empty);
  EXPECT_NE(Value(Array{}), Value(Dictionary{}));
  EXPECT_NE(Value(""), Value(Value::Bytes{}));
  EXPECT_EQ(nil.description(), "(null)");
  EXPECT_EQ(null.description(), "<null>");
  EXPECT_EQ(Value(42)["k"].kind(), Value::Kind::Nil);
  EXPECT_EQ(Value(Array{1}).at(1).kind(), Value::Kind::Nil);
  EXPECT_EQ(Value::DataFrom("abc", 3).count(), 3u);
}

TEST(ValueTest, ContainersCopyOnWrite) {
  Value a(Array{1, 2});
  Value b = a;
  b.mutableArray()->push_back(3);
  EXPECT_EQ(a.count(), 2u);
  EXPECT_EQ(b.count(), 3u);
  // A sole owner mutates in place.
  const Array* before = b.array();
  b.mutableArray()->push_back(4);
  EXPECT_EQ(b.array(), before);

  Value d;
  (*d.mutableDictionary())["k"] = Value("v");
  Value e = d;
  (*e.mutableDictionary())["k"] = Value("w");
  EXPECT_EQ(d["k"], Value("v"));
  EXPECT_EQ(e["k"], Value("w"));
  Value s("text");
  EXPECT_EQ(s.mutableArray(), nullptr);
  EXPECT_EQ(s, Value("text"));
}

// A copy read and dropped on another thread must not race with the owner's
// later in-place mutation (checked by the thread-sanitizer build).
TEST(ValueTest, CopyOnWriteIsSafeAcrossThreads) {
  for (int round = 0; round < 50; ++round) {
    Value a(Array{1, 2, 3});
    std::thread reader([copy = a]() mutable {
      EXPECT_EQ(copy.count(), 3u);
      copy = Value();
    });
    while (a.mutableArray() && a.count() < 1000) a.mutableArray()->push_back(round);
    reader.join();
    EXPECT_EQ(a.count(), 1000u);
  }
}

class Thing : public Object {
 public:
  explicit Thing(int id) : id(id) {}
  std::string className() const override { return "KXThing"; }
  int id;
};

class Keyed : public Thing {
 public:
  using Thing::Thing;
  bool isEqual(const Object& o) const override {
    auto* k = dynamic_cast<const Keyed*>(&o);
    return k && k->id == id;
  }
  size_t hash() const override { return static_cast<size_t>(id); }
};

TEST(ValueTest, ObjectsDescribeThemselvesAndCompareByIsEqual) {
  auto t = std::make_shared<Thing>(1);
  const std::string d = Value(ObjectRef(t)).description();
  EXPECT_EQ(d.rfind("<KXThing: 0x", 0), 0u) << d;
  EXPECT_EQ(d.back(), '>');
  EXPECT_EQ(Value(ObjectRef(t)), Value(ObjectRef(t)));
  EXPECT_NE(Value(ObjectRef(t)), Value(ObjectRef(std::make_shared<Thing>(1))));
  EXPECT_EQ(Value(ObjectRef(std::make_shared<Keyed>(2))),
            Value(ObjectRef(std::make_shared<Keyed>(2))));
  EXPECT_EQ(Value(ObjectRef(t)).objectAs<Thing>(), t);
  EXPECT_EQ(Value(ObjectRef(t)).objectAs<Keyed>(), nullptr);
}

TEST(ValueTest, EqualValuesHashEqual) {
  std::unordered_set<Value> set;
  set.insert(Value(MakeDictionary({{"a", 1}, {"b", Array{1.0, "x"}}})));
  EXPECT_TRUE(set.count(Value(MakeDictionary({{"a", true}, {"b", Array{1, "x"}}}))));
  EXPECT_FALSE(set.count(Value(MakeDictionary({{"a", 1}, {"b", Array{"x", 1}}}))));
  EXPECT_EQ(Value(Rect{{1, 2}, {3, 4}}), Value(Rect{{1, 2}, {3, 4}}));
  EXPECT_NE(Value(Point{1, 2}), Value(Size{1, 2}));
}

TEST(ValueTest, DescribesLikeOldStylePropertyLists) {
  const Value v(MakeDictionary({
      {"name", "two words"},
      {"n", 1.5},
      {"list", Array{1, Array{2}, "plain", ""}},
      {"empty", Dictionary{}},
      {"a b", Value::Null()},
  }));
  EXPECT_EQ(v.description(),
            "{\n"
            "    \"a b\" = \"<null>\";\n"
            "    empty =     {\n"
            "    };\n"
            "    list =     (\n"
            "        1,\n"
            "                (\n"
            "            2\n"
            "        ),\n"
            "        plain,\n"
            "        \"\"\n"
            "    );\n"
            "    n = 1.5;\n"
            "    name = \"two words\";\n"
            "}");
  EXPECT_EQ(Value(Array{}).description(), "(\n)");
  EXPECT_EQ(Value("say \"hi\"\n").description(), "say \"hi\"\n");  // bare at top level
  EXPECT_EQ(Value(Array{"say \"hi\"\n"}).description(), "(\n    \"say \\\"hi\\\"\\n\"\n)");
  EXPECT_EQ(Value(Date{0}).description(), "2001-01-01 00:00:00 +0000");
  EXPECT_EQ(Value(Date{-0.5}).description(), "2000-12-31 23:59:59 +0000");
  EXPECT_EQ(Value::DataFrom("\x01\xAB", 2).description(), "{length = 2, bytes = 0x01ab}");
  Value::Bytes big(30);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(Value(big).description(),
            "{length = 30, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f ... 16171819 1a1b1c1d }");
  EXPECT_EQ(Value(Rect{{1, 2.5}, {3, 4}}).description(), "{{1, 2.5}, {3, 4}}");
}

TEST(ValueTest, ErrorsDescribeThemselves) {
  Error plain{"KXDomain", 7, nullptr};
  EXPECT_EQ(plain.localizedDescription(),
            "The operation couldn't be completed. (KXDomain error 7.)");
  Error described{"KXDomain", 7,
                  std::make_shared<const Dictionary>(
                      MakeDictionary({{"NSLocalizedDescription", "Went wrong"}}))};
  EXPECT_EQ(described.localizedDescription(), "Went wrong");
  EXPECT_NE(plain, described);
  EXPECT_NE(plain, (Error{"KXDomain", 7, std::make_shared<const Dictionary>()}));
  EXPECT_EQ(Value(described).description(),
            "Error Domain=KXDomain Code=7 \"Went wrong\" UserInfo={NSLocalizedDescription=Went "
            "wrong}");
}

TEST(URLTest, ParsesBuildsAndDecodes) {
  EXPECT_FALSE(URL::WithString(""));
  EXPECT_FALSE(URL::WithString("no-scheme/path"));
  EXPECT_FALSE(URL::WithString("http://a b"));
  EXPECT_FALSE(URL::WithString("http://a%2"));
  auto u = URL::WithString("https://host:80/a%20b/c?q=1#f");
  ASSERT_TRUE(u);
  EXPECT_EQ(u->scheme(), "https");
  EXPECT_FALSE(u->isFileURL());
  EXPECT_EQ(u->path(), "/a b/c");

  URL f = URL::FileURLWithPath("/tmp/a b/\xC3\xA9%.txt");
  EXPECT_EQ(f.absoluteString(), "file:///tmp/a%20b/%C3%A9%25.txt");
  EXPECT_TRUE(f.isFileURL());
  EXPECT_EQ(f.path(), "/tmp/a b/\xC3\xA9%.txt");
  EXPECT_EQ(URL::WithString(f.absoluteString()), f);
  EXPECT_EQ(Value(f).description(), f.absoluteString());
}

}  // namespace
}  // namespace kx
