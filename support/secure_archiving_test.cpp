#include "support/secure_archiving.h"

#include <gtest/gtest.h>

#include "support/archivable_images.h"
#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"

// The allowed class set is built once per process; these tests rely on each
// test running in a fresh process (as ctest runs them), so that one of them
// can register the placemark class before first use.

namespace kx {
namespace {

// A record shaped like the feedback records: secure-codable, but not one of
// the classes result properties may hold.
class FeedbackLike : public Object, public Archivable {
 public:
  std::string input;
  std::string className() const override { return "TestFeedback"; }
  bool supportsSecureCoding() const override { return true; }
  void encodeWithCoder(KeyedArchiver& c) const override { c.encodeObject(Value(input), "input"); }
  bool initWithCoder(KeyedUnarchiver& c) override {
    if (const std::string* s = c.decodeObjectOfClass(archive_class::kString, "input").string())
      input = *s;
    return true;
  }
};

class Placemark : public FeedbackLike {
 public:
  std::string className() const override { return "MQPlacemark"; }
  bool isEqual(const Object& other) const override {
    auto* o = dynamic_cast<const Placemark*>(&other);
    return o && o->input == input;
  }
};

Value RoundTrip(const Value& v) {
  auto bytes = _kx_secureArchivedDataWithRootObject(v);
  if (!bytes) return Value::Null();
  return _kx_secureUnarchiveObjectWithData(*bytes);
}

Value EveryAllowedKind() {
  auto image = std::make_shared<KXImage>();
  image->data = Value::Bytes{0x89, 'P', 'N', 'G'};
  image->scale = 2;
  auto color = std::make_shared<KXColor>();
  color->red = 0.25;
  auto vnt = std::make_shared<VNTImage>();
  vnt->identifier = "id";
  vnt->imageData = Value::Bytes{};
  vnt->size = {10, 20};
  auto category = std::make_shared<VNTMapsSearchCategoryImage>();
  category->categoryIdentifier = "coffee";
  category->urlString = "https://example.com/c.png";
  auto calendar = std::make_shared<VNTCalendarImage>();
  calendar->date = Date{86400};
  auto sprite = std::make_shared<VNTSpriteImage>();
  sprite->spriteIndex = 17;
  return Value(MakeDictionary({
      {"array", Value(Array{Value("s"), Value(1.5), Value(Value::Bytes{1})})},
      {"date", Value(Date{42})},
      {"url", Value(*URL::WithString("file:///tmp/a%20b"))},
      {"error", Value(Error{"D", 3, nullptr})},
      {"rect", Value(Rect{{1, 2}, {3, 4}})},
      {"image", Value(ObjectRef(image))},
      {"color", Value(ObjectRef(color))},
      {"vnt", Value(ObjectRef(vnt))},
      {"category", Value(ObjectRef(category))},
      {"calendar", Value(ObjectRef(calendar))},
      {"sprite", Value(ObjectRef(sprite))},
  }));
}

TEST(SecureArchivingTest, AllowedClassesRoundTripWithoutPlacemark) {
  namespace ac = archive_class;
  std::vector<std::string> expected = {
      std::string(ac::kDictionary), std::string(ac::kArray), std::string(ac::kString),
      std::string(ac::kNumber),     std::string(ac::kData),  std::string(ac::kDate),
      std::string(ac::kURL),        std::string(ac::kValue), std::string(ac::kError),
      "KXImage", "KXColor", "VNTImage", "VNTMapsSearchCategoryImage", "VNTCalendarImage",
      "VNTSpriteImage"};
  EXPECT_EQ(SecureArchivingAllowedClasses().names(), expected);

  Value all = EveryAllowedKind();
  Value back = RoundTrip(all);
  EXPECT_EQ(back, all) << back.description();
  // Each image variant comes back as its own class, not as the base.
  EXPECT_TRUE(back["category"].objectAs<VNTMapsSearchCategoryImage>());
  EXPECT_EQ(back["sprite"].objectAs<VNTSpriteImage>()->spriteIndex, 17);
}

TEST(SecureArchivingTest, PlacemarkRegisteredBeforeFirstUseIsAllowed) {
  RegisterArchivableClass<Placemark>("MQPlacemark");
  const auto& names = SecureArchivingAllowedClasses().names();
  ASSERT_EQ(names.size(), 16u);
  EXPECT_EQ(names[11], "MQPlacemark");
  auto place = std::make_shared<Placemark>();
  place->input = "Main Street";
  Value v(Array{Value(ObjectRef(place))});
  EXPECT_EQ(RoundTrip(v), v);
}

TEST(SecureArchivingTest, RecordsOutsideTheSetAreRefusedAtAnyDepth) {
  RegisterArchivableClass<FeedbackLike>("TestFeedback");
  auto feedback = std::make_shared<FeedbackLike>();
  feedback->input = "query";
  Value root{ObjectRef(feedback)};
  Value nested(MakeDictionary({{"ok", "fine"}, {"list", Value(Array{root})}}));
  for (const Value& v : {root, nested}) {
    auto bytes = _kx_secureArchivedDataWithRootObject(v);
    ASSERT_TRUE(bytes);  // secure-codable, so it archives
    EXPECT_TRUE(_kx_secureUnarchiveObjectWithData(*bytes).isNil());
    // The plain unarchiver reads the same bytes, so only the class set
    // refused them.
    EXPECT_FALSE(KeyedUnarchiver::UnarchivedObjectWithData(*bytes).isNil());
  }
  // A placemark class registered after the set was built stays outside it.
  RegisterArchivableClass<Placemark>("MQPlacemark");
  auto bytes = _kx_secureArchivedDataWithRootObject(Value(ObjectRef(std::make_shared<Placemark>())));
  ASSERT_TRUE(bytes);
  EXPECT_TRUE(_kx_secureUnarchiveObjectWithData(*bytes).isNil());
}

TEST(SecureArchivingTest, AbsentAndEmptyRootsAreKeptApart) {
  auto absent = _kx_secureArchivedDataWithRootObject(Value());
  auto empty = _kx_secureArchivedDataWithRootObject(Value(Dictionary()));
  ASSERT_TRUE(absent && empty);
  EXPECT_NE(*absent, *empty);
  // The precomputed archives equal what the general path writes.
  EXPECT_EQ(*empty, *KeyedArchiver::ArchivedDataWithRootObject(Value(Dictionary()), true));
  EXPECT_EQ(*absent, *KeyedArchiver::ArchivedDataWithRootObject(Value(), true));
  EXPECT_TRUE(_kx_secureUnarchiveObjectWithData(*absent).isNil());
  Value back = _kx_secureUnarchiveObjectWithData(*empty);
  ASSERT_TRUE(back.dictionary());
  EXPECT_TRUE(back.dictionary()->empty());
}

TEST(SecureArchivingTest, DamagedBytesYieldNil) {
  auto bytes = _kx_secureArchivedDataWithRootObject(EveryAllowedKind());
  ASSERT_TRUE(bytes);
  for (size_t n = 0; n < bytes->size(); ++n) {
    std::vector<uint8_t> prefix(bytes->begin(), bytes->begin() + static_cast<long>(n));
    EXPECT_TRUE(_kx_secureUnarchiveObjectWithData(prefix).isNil()) << n;
  }
  // Flipped bytes may still decode to something, but never crash.
  for (size_t i = 0; i < bytes->size(); ++i) {
    std::vector<uint8_t> damaged = *bytes;
    damaged[i] ^= 0x5a;
    _kx_secureUnarchiveObjectWithData(damaged);
  }
}

}  // namespace
}  // namespace kx
