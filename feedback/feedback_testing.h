// Helpers shared by the feedback tests: archive round trips, the keys a
// record leaves in an archive, every root field filled, and forged archives
// that the real classes would never write.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kx/KXFeedback.h"
#include "feedback/feedback_archive.h"
#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"
#include "base/property_list.h"

namespace kx::test {

using Bytes = std::vector<uint8_t>;

inline Bytes ArchiveOf(const std::shared_ptr<KXFeedback>& record) {
  std::optional<Bytes> bytes = ArchivedFeedbackData(record);
  EXPECT_TRUE(bytes.has_value()) << "record did not archive";
  return bytes.value_or(Bytes{});
}

// The property list inside an archive. Archives are compared by content:
// the binary encoder may share equal data objects in one run and not in
// another, so equal archives need not have equal bytes.
inline Value ArchiveContent(std::span<const uint8_t> bytes) {
  return DecodeBinaryPropertyList(bytes).value;
}

// Archives `record`, restores it and archives the restored record again.
// Equal archives mean every archived field came back. Returns the restored
// record (null on failure).
template <class T>
std::shared_ptr<T> RoundTrip(const std::shared_ptr<T>& record) {
  const Bytes bytes = ArchiveOf(record);
  auto restored = std::dynamic_pointer_cast<T>(UnarchivedFeedbackWithData(bytes));
  EXPECT_NE(restored, nullptr) << "archive did not restore a " << record->className();
  if (restored) {
    EXPECT_EQ(ArchiveContent(ArchiveOf(restored)), ArchiveContent(bytes))
        << "a field did not survive";
  }
  return restored;
}

// A record's archived field: its value as text, and the table index of the
// object it refers to (0 for a value stored inline, and for nil).
struct ArchivedField {
  std::string value;
  int64_t reference = 0;
};

// Table entry `index` as text: strings quoted, data in hex, numbers as
// "<type> <value>", containers with their contents, records by class name
// only (each record class's own fields are checked on their own).
inline std::string RenderArchiveEntry(const Array& objects, int64_t index) {
  if (index <= 0 || static_cast<size_t>(index) >= objects.size()) return "nil";
  const Value& entry = objects[static_cast<size_t>(index)];
  if (const std::string* s = entry.string()) return "\"" + *s + "\"";
  if (const Value::Bytes* d = entry.data()) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex = "<";
    for (uint8_t byte : *d) hex += {kHex[byte >> 4], kHex[byte & 15]};
    return hex + ">";
  }
  auto reference = [](const Value& v) { return v.number() ? v.number()->int64Value() : -1; };
  const std::string cls = entry["$class"].string() ? *entry["$class"].string() : "?";
  if (cls == "KXNumber") return entry["type"].description() + " " + entry["value"].description();
  if (cls == "KXURL") return "url " + entry["string"].description();
  if (cls == "KXArray") {
    std::string out = "(";
    for (const Value& element : entry["objects"].array() ? *entry["objects"].array() : Array{})
      out += (out.size() > 1 ? ", " : "") + RenderArchiveEntry(objects, reference(element));
    return out + ")";
  }
  if (cls == "KXDictionary") {
    std::string out = "{";
    if (const Dictionary* entries = entry["entries"].dictionary()) {
      for (const auto& [key, element] : *entries)
        out += (out.size() > 1 ? "; " : "") + key + " = " +
               RenderArchiveEntry(objects, reference(element));
    }
    return out + "}";
  }
  return cls;
}

// The fields of the first record of `className` in an archive, by key
// ("$class" left out).
inline std::map<std::string, ArchivedField> ArchivedFields(std::span<const uint8_t> bytes,
                                                           std::string_view className) {
  const Value content = ArchiveContent(bytes);
  if (const Array* objects = content["$objects"].array()) {
    for (const Value& entry : *objects) {
      const Dictionary* keys = entry.dictionary();
      const Value cls = entry["$class"];
      if (!keys || !cls.string() || *cls.string() != className) continue;
      std::map<std::string, ArchivedField> out;
      for (const auto& [key, value] : *keys) {
        if (key == "$class") continue;
        if (const Number* ref = value["$ref"].number()) {
          out[key] = {RenderArchiveEntry(*objects, ref->int64Value()), ref->int64Value()};
        } else {
          out[key] = {value.description()};
        }
      }
      return out;
    }
  }
  ADD_FAILURE() << "no " << className << " in the archive";
  return {};
}

inline std::set<std::string> ArchivedKeys(std::span<const uint8_t> bytes,
                                          std::string_view className) {
  std::set<std::string> keys;
  for (const auto& [key, field] : ArchivedFields(bytes, className)) keys.insert(key);
  return keys;
}

// (key, archived value as ArchivedFields renders it), in encoding order.
using FieldList = std::vector<std::pair<std::string, std::string>>;

// Checks that the record of `className` archives exactly `expected`: each
// key with the value of its own field, and the fields in the listed order.
// Numbers and booleans are stored inline, so the order is visible, and
// checked, through the objects, which enter the table as they are encoded.
inline void ExpectArchivedFields(std::span<const uint8_t> bytes, std::string_view className,
                                 const FieldList& expected) {
  SCOPED_TRACE(std::string(className));
  const std::map<std::string, ArchivedField> fields = ArchivedFields(bytes, className);
  std::map<std::string, std::string> actual;
  for (const auto& [key, field] : fields) actual[key] = field.value;
  EXPECT_EQ(actual, (std::map<std::string, std::string>(expected.begin(), expected.end())));
  int64_t last = 0;
  std::string lastKey = "(start)";
  for (const auto& [key, value] : expected) {
    auto it = fields.find(key);
    if (it == fields.end() || it->second.reference == 0) continue;
    EXPECT_GT(it->second.reference, last) << key << " is encoded before " << lastKey;
    last = it->second.reference;
    lastKey = key;
  }
}

// What FillFeedbackFields leaves in the KXFeedback fields of an archive of
// a record made at `timestamp`.
inline FieldList FeedbackFields(double timestamp) {
  return {{"timestamp", Value(timestamp).description()},
          {"identifier", "\"42\""},
          {"bundleID", "\"com.orvex.mail\""},
          {"protectionClass", "\"classA\""},
          {"externalIdentifier", "\"ext-1\""},
          {"domain", "-2147483645"},
          {"input", "\"pizza\""},
          {"results", "(KXFeedbackResult, nil)"},
          {"fbq", "\"fbq-1\""},
          {"web_fbq", "\"web-fbq-1\""},
          {"predictionIdentifier", "\"prediction-1\""},
          {"resultSetIdentifier", "\"set-1\""},
          {"keyboardLanguage", "\"en_GB\""},
          {"geoUserSessionIDString", "\"geo-1\""},
          {"geoUserSequenceNumber", "-1"},
          {"geoUserSessionStartTime", "12345.25"},
          {"geoPlaceData", "(<010203>, \"place\")"}};
}

// The keys every KXFeedback writes when all its fields are set.
inline std::set<std::string> FeedbackKeys() {
  std::set<std::string> keys;
  for (const auto& [key, value] : FeedbackFields(0)) keys.insert(key);
  return keys;
}

// Sets every archived field of `record` to a distinct, non-default value
// (the unsigned numbers use their top bit); `results` holds one fully set
// KXFeedbackResult and one null entry.
inline void FillFeedbackFields(KXFeedback& record) {
  record.setDomain(0x80000003u);
  record.setIdentifier("42");
  record.setBundleID("com.orvex.mail");
  record.setExternalIdentifier("ext-1");
  record.setProtectionClass("classA");
  record.setInput("pizza");
  auto result = std::make_shared<KXFeedbackResult>();
  result->setDomain(0xFFFFFFFEu);
  result->setFlags(-5);
  result->setTopHit(true);
  result->setFbr("fbr-1");
  result->setActivityIdentifier("activity-1");
  result->setActivityRequiredString("required");
  result->setActivitySecondaryString("secondary");
  result->setActivitybundleID("a.b");
  result->setActivityTitle("title");
  result->setActivityData(Value::Bytes{0, 1, 2});
  result->setActivityType("type");
  result->setActivityIsPublic(false);
  result->setHasAssociatedUserActivity(true);
  result->setLastSearchQuery("last");
  result->setUrl("https://x.example/");
  // Never archived: they exist only in the process that builds the record.
  result->setAttributes(MakeDictionary({{"kZRItemTitle", "t"}}));
  result->setThumbnailData(Value::Bytes{7});
  result->setAppShortVersion("1.2");
  record.setResults(KXFeedback::ResultList{result, nullptr});
  record.setFbq("fbq-1");
  record.setWeb_fbq("web-fbq-1");
  record.setPredictionIdentifier("prediction-1");
  record.setResultSetIdentifier("set-1");
  record.setKeyboardLanguage("en_GB");
  record.setGeoUserSessionIDString("geo-1");
  record.setGeoUserSequenceNumber(0xFFFFFFFFu);
  record.setGeoUserSessionStartTime(12345.25);
  record.setGeoPlaceData(Array{Value(Value::Bytes{1, 2, 3}), Value("place")});
}

// Archives under any class name with whatever keys `encode` writes, so that
// the real class of that name meets input it would never produce.
class ForgedRecord : public Object, public Archivable {
 public:
  ForgedRecord(std::string name, std::function<void(KeyedArchiver&)> encode)
      : name_(std::move(name)), encode_(std::move(encode)) {}
  std::string className() const override { return name_; }
  void encodeWithCoder(KeyedArchiver& coder) const override { encode_(coder); }
  bool initWithCoder(KeyedUnarchiver&) override { return false; }

 private:
  std::string name_;
  std::function<void(KeyedArchiver&)> encode_;
};

inline Bytes ForgedArchive(std::string className, std::function<void(KeyedArchiver&)> encode) {
  auto record = std::make_shared<ForgedRecord>(std::move(className), std::move(encode));
  return KeyedArchiver::ArchivedDataWithRootObject(Value(ObjectRef(record))).value_or(Bytes{});
}

}  // namespace kx::test
