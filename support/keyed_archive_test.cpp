#include <gtest/gtest.h>

#include <chrono>

#include "support/archivable.h"
#include "support/keyed_archive_format.h"
#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"
#include "base/property_list.h"

namespace kx {
namespace {

namespace ac = archive_class;
using Bytes = std::vector<uint8_t>;

// A record with one field of every coded kind. Restrictions in initWithCoder
// follow the usual pattern: strings as strings, the child as a node.
class Node : public Object, public Archivable {
 public:
  std::optional<std::string> name;
  int32_t count = 0;
  int64_t big = 0;
  double ratio = 0;
  bool flag = false;
  Value child;  // a Node, or anything else in plain mode
  bool secure = true;
  bool refuse = false;  // initWithCoder declines

  std::string className() const override { return "TestNode"; }
  bool supportsSecureCoding() const override { return secure; }
  void encodeWithCoder(KeyedArchiver& c) const override {
    if (name) c.encodeObject(Value(*name), "name");
    c.encodeInt32(count, "count");
    c.encodeInt64(big, "big");
    c.encodeDouble(ratio, "$ratio");  // a key that needs escaping
    c.encodeBool(flag, "flag");
    c.encodeBool(refuse, "refuse");
    c.encodeObject(child, "child");
  }
  bool initWithCoder(KeyedUnarchiver& c) override {
    if (c.decodeBool("refuse")) return false;
    if (Value v = c.decodeObjectOfClass(ac::kString, "name"); v.string()) name = *v.string();
    count = c.decodeInt32("count");
    big = c.decodeInt64("big");
    ratio = c.decodeDouble("$ratio");
    flag = c.decodeBool("flag");
    child = c.decodeObjectOfClass("TestNode", "child");
    return true;
  }
};

class SubNode : public Node {
 public:
  std::string className() const override { return "TestSubNode"; }
};

class Unsafe : public Node {
 public:
  Unsafe() { secure = false; }
  std::string className() const override { return "TestUnsafe"; }
};

class KeyedArchiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RegisterArchivableClass<Node>("TestNode");
    RegisterArchivableClass<SubNode>("TestSubNode", "TestNode");
    RegisterArchivableClass<Unsafe>("TestUnsafe");
  }
};

Value RoundTrip(const Value& v, const ArchiveClassSet* secure = nullptr) {
  auto bytes = KeyedArchiver::ArchivedDataWithRootObject(v, secure != nullptr);
  if (!bytes) return Value::Null();  // distinguishable from a nil result
  return KeyedUnarchiver::UnarchivedObjectWithData(*bytes, secure);
}

// A hand-made archive around an object table, for damaged-table tests.
Bytes ArchiveWithTable(Array objects, Value rootRef = Value(MakeDictionary({{"$ref", 1}}))) {
  objects.insert(objects.begin(), Value("$null"));
  Dictionary top;
  top.emplace("root", rootRef);
  Dictionary archive;
  archive.emplace("$archiver", Value("KXKeyedArchiver"));
  archive.emplace("$version", Value(int64_t{1}));
  archive.emplace("$top", Value(std::move(top)));
  archive.emplace("$objects", Value(std::move(objects)));
  return EncodeBinaryPropertyList(Value(std::move(archive)));
}

TEST_F(KeyedArchiveTest, PlainValuesRoundTripWithTheirStoredTypes) {
  auto info = std::make_shared<const Dictionary>(MakeDictionary({{"why", "because"}}));
  Dictionary d = MakeDictionary({
      {"string", "héllo"},
      {"empty string", ""},
      {"$dollar key", 1},
      {"bool", Value(Number::Bool(true))},
      {"char", Value(Number::Char(-5))},
      {"int16", Value(Number::Int16(-300))},
      {"uint16", Value(Number::UInt16(65535))},
      {"uint32", Value(Number::UInt32(4000000000u))},
      {"int64", Value(Number::Int64(INT64_MIN))},
      {"uint64", Value(Number::UInt64(UINT64_MAX))},
      {"float", Value(Number::Float(0.1f))},
      {"double", Value(Number::Double(-2.5))},
      {"data", Value(Value::Bytes{0, 1, 2})},
      {"empty data", Value(Value::Bytes{})},
      {"date", Value(Date{123.25})},
      {"url", Value(*URL::WithString("https://example.com/a?b=c"))},
      {"null", Value::Null()},
      {"error", Value(Error{"Domain", -7, info})},
      {"point", Value(Point{1, 2})},
      {"size", Value(Size{3, 4})},
      {"rect", Value(Rect{{5, 6}, {7, 8}})},
      {"array", Value(Array{Value("a"), Value(Array{}), Value(Dictionary{})})},
  });
  Value back = RoundTrip(Value(d));
  ASSERT_EQ(back, Value(d)) << back.description();
  // Equality of numbers is numeric; the stored type must survive as well.
  for (const auto& [key, v] : d) {
    if (v.number()) {
      EXPECT_EQ(back[key].number()->type(), v.number()->type()) << key;
    }
  }
  EXPECT_NE(back["empty data"].data(), nullptr);
  EXPECT_NE(back["empty string"].string(), nullptr);
  EXPECT_TRUE(RoundTrip(Value()).isNil());
}

TEST_F(KeyedArchiveTest, RecordsKeepFieldsSharingAndCycles) {
  auto leaf = std::make_shared<Node>();
  leaf->name = "";
  auto root = std::make_shared<Node>();
  root->count = -3;
  root->big = int64_t{1} << 40;
  root->ratio = 0.5;
  root->flag = true;
  root->child = Value(ObjectRef(leaf));
  // The same leaf twice in an array, and the root under its own child: one
  // instance each after decoding, and the cycle terminates.
  leaf->child = Value(ObjectRef(root));
  Value graph(Array{Value(ObjectRef(root)), Value(ObjectRef(leaf))});

  Value back = RoundTrip(graph);
  leaf->child = Value();  // break the original cycle
  ASSERT_EQ(back.count(), 2u);
  auto r = back.at(0).objectAs<Node>();
  auto l = back.at(1).objectAs<Node>();
  ASSERT_TRUE(r && l);
  EXPECT_EQ(r->count, -3);
  EXPECT_EQ(r->big, int64_t{1} << 40);
  EXPECT_EQ(r->ratio, 0.5);
  EXPECT_TRUE(r->flag);
  EXPECT_FALSE(r->name.has_value());
  EXPECT_EQ(l->name, std::optional<std::string>(""));
  EXPECT_EQ(r->child.objectAs<Node>(), l);
  EXPECT_EQ(l->child.objectAs<Node>(), r);
  l->child = Value();  // break the decoded cycle
}

TEST_F(KeyedArchiveTest, SecureDecodingEnforcesClassesAtEveryDepth) {
  auto node = std::make_shared<Node>();
  node->name = "n";
  node->child = Value(ObjectRef(std::make_shared<SubNode>()));
  ArchiveClassSet nodes{"TestNode"};
  ArchiveClassSet arrays{ac::kArray};
  ArchiveClassSet arraysOfNodes{ac::kArray, "TestNode"};

  // A subclass passes a restriction to its superclass.
  Value back = RoundTrip(Value(ObjectRef(node)), &nodes);
  ASSERT_TRUE(back.objectAs<Node>());
  EXPECT_TRUE(back.objectAs<Node>()->child.objectAs<SubNode>());

  // Outside the set: at the root, or as an element of an allowed array.
  Value array(Array{Value(ObjectRef(node))});
  EXPECT_TRUE(RoundTrip(Value(ObjectRef(node)), &arrays).isNil());
  EXPECT_TRUE(RoundTrip(array, &arrays).isNil());
  EXPECT_TRUE(RoundTrip(array, &arraysOfNodes).array());
  // Without secure coding the same restriction is not enforced.
  auto plain = KeyedArchiver::ArchivedDataWithRootObject(array);
  KeyedUnarchiver u(*plain);
  EXPECT_TRUE(u.decodeObjectOfClasses(ArchiveClassSet{ac::kString}, "root").array());
  EXPECT_FALSE(u.failed());

  // A record that does not declare secure coding is refused both ways, and
  // secure decoding without any allowed classes refuses everything.
  auto unsafe = std::make_shared<Unsafe>();
  EXPECT_FALSE(KeyedArchiver::ArchivedDataWithRootObject(Value(ObjectRef(unsafe)), true));
  auto unsafeBytes = KeyedArchiver::ArchivedDataWithRootObject(Value(ObjectRef(unsafe)));
  ArchiveClassSet unsafeSet{"TestUnsafe"};
  EXPECT_TRUE(KeyedUnarchiver::UnarchivedObjectWithData(*unsafeBytes, &unsafeSet).isNil());
  KeyedUnarchiver noClasses(*plain);
  noClasses.setRequiresSecureCoding(true);
  EXPECT_TRUE(noClasses.decodeObject("root").isNil());
  EXPECT_TRUE(noClasses.failed());
}

TEST_F(KeyedArchiveTest, TypedKeysDefaultWhenMissingAndFailOnMismatch) {
  KeyedArchiver a;
  a.encodeObject(Value("text"), "object");
  a.encodeInt64(int64_t{1} << 40, "wide");
  a.encodeDouble(-2.75, "real");
  auto refusing = std::make_shared<Node>();
  refusing->refuse = true;
  a.encodeObject(refusing, "refused");
  auto bytes = a.finishEncoding();
  ASSERT_TRUE(bytes);

  KeyedUnarchiver u(*bytes);
  EXPECT_EQ(u.decodeInt32("missing"), 0);
  EXPECT_FALSE(u.decodeBool("missing"));
  EXPECT_TRUE(u.decodeObject("missing").isNil());
  EXPECT_EQ(u.decodeInt32("real"), -2);  // C conversion: toward zero
  EXPECT_EQ(u.decodeInt64("wide"), int64_t{1} << 40);
  // A record that declines decodes as nil without failing the archive.
  EXPECT_TRUE(u.decodeObject("refused").isNil());
  EXPECT_FALSE(u.failed());

  KeyedUnarchiver narrow(*bytes);
  EXPECT_EQ(narrow.decodeInt32("wide"), 0);
  EXPECT_TRUE(narrow.failed());
  KeyedUnarchiver mismatch(*bytes);
  EXPECT_EQ(mismatch.decodeInt64("object"), 0);
  EXPECT_TRUE(mismatch.failed());
  KeyedUnarchiver mismatch2(*bytes);
  EXPECT_TRUE(mismatch2.decodeObject("real").isNil());
  EXPECT_TRUE(mismatch2.failed());
  // Once failed, everything yields nothing.
  EXPECT_TRUE(mismatch2.decodeObject("object").isNil());
}

TEST_F(KeyedArchiveTest, DamagedArchivesDecodeToNil) {
  auto decode = [](const Bytes& b) { return KeyedUnarchiver::UnarchivedObjectWithData(b); };
  auto ref = [](int64_t i) { return Value(MakeDictionary({{"$ref", i}})); };
  auto cls = [](const char* name, Dictionary extra = {}) {
    extra.emplace("$class", Value(name));
    return Value(std::move(extra));
  };
  EXPECT_TRUE(decode({}).isNil());
  EXPECT_TRUE(decode({'b', 'p', 'l', 'i', 's', 't'}).isNil());
  EXPECT_TRUE(decode(EncodeBinaryPropertyList(Value(Array{}))).isNil());
  // The well-formed hand-made table decodes, so the failures below are due
  // to the damage alone.
  EXPECT_EQ(decode(ArchiveWithTable({Value("ok")})), Value("ok"));
  EXPECT_TRUE(decode(ArchiveWithTable({Value("ok")}, ref(2))).isNil());   // out of range
  EXPECT_TRUE(decode(ArchiveWithTable({Value("ok")}, ref(-1))).isNil());  // negative
  EXPECT_TRUE(decode(ArchiveWithTable({Value("ok")}, Value(1))).isNil());  // not a reference
  EXPECT_TRUE(decode(ArchiveWithTable({Value(3.5)})).isNil());             // bare number
  EXPECT_TRUE(decode(ArchiveWithTable({cls("NoSuchClass")})).isNil());
  EXPECT_TRUE(decode(ArchiveWithTable(
      {cls("KXNumber", MakeDictionary({{"type", "int16"}, {"value", 70000}}))})).isNil());
  EXPECT_TRUE(decode(ArchiveWithTable(
      {cls("KXURL", MakeDictionary({{"string", "no scheme"}}))})).isNil());
  // A cycle through plain arrays: entry 1 contains itself.
  EXPECT_TRUE(decode(ArchiveWithTable(
      {cls("KXArray", MakeDictionary({{"objects", Value(Array{Value(1)})}}))})).isNil());
  // A record field holding a scalar where an object belongs, and (secure) an
  // object of a class its decoder does not allow.
  EXPECT_TRUE(decode(ArchiveWithTable(
      {cls("TestNode", MakeDictionary({{"child", Value(2)}}))})).isNil());
  ArchiveClassSet nodes{"TestNode"};
  Bytes wrongChild =
      ArchiveWithTable({cls("TestNode", MakeDictionary({{"child", ref(2)}})), Value("string")});
  EXPECT_TRUE(decode(wrongChild).objectAs<Node>());
  EXPECT_TRUE(KeyedUnarchiver::UnarchivedObjectWithData(wrongChild, &nodes).isNil());
}

TEST_F(KeyedArchiveTest, SharedSubgraphsAndDepthAreBounded) {
  // Entry i is an array holding entry i+1 twice: 2^60 paths, 61 entries.
  Array table;
  const int levels = 60;
  for (int i = 1; i <= levels; ++i) {
    table.push_back(Value(MakeDictionary(
        {{"$class", "KXArray"}, {"objects", Value(Array{Value(i + 1), Value(i + 1)})}})));
  }
  table.push_back(Value("leaf"));
  auto start = std::chrono::steady_clock::now();
  Value v = KeyedUnarchiver::UnarchivedObjectWithData(ArchiveWithTable(table));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(v.count(), 2u);

  // Nesting beyond the limit fails on both sides instead of overflowing.
  Value deep("bottom");
  for (int i = 0; i < archive_format::kMaxDepth + 1; ++i) deep = Value(Array{deep});
  EXPECT_FALSE(KeyedArchiver::ArchivedDataWithRootObject(deep));
  Array chain;
  for (int i = 1; i <= archive_format::kMaxDepth + 1; ++i) {
    chain.push_back(
        Value(MakeDictionary({{"$class", "KXArray"}, {"objects", Value(Array{Value(i + 1)})}})));
  }
  chain.push_back(Value("bottom"));
  EXPECT_TRUE(KeyedUnarchiver::UnarchivedObjectWithData(ArchiveWithTable(chain)).isNil());
}

TEST_F(KeyedArchiveTest, ObjectsThatAreNotArchivableFailTheArchive) {
  class Opaque : public Object {
   public:
    std::string className() const override { return "Opaque"; }
  };
  Value v(Array{Value(ObjectRef(std::make_shared<Opaque>()))});
  KeyedArchiver a;
  a.encodeObject(v, "root");
  EXPECT_TRUE(a.failed());
  EXPECT_FALSE(a.finishEncoding());
}

}  // namespace
}  // namespace kx
