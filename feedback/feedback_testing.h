// Helpers shared by the feedback tests: archive round trips, the keys a
// record leaves in an archive, every root field filled, and forged archives
// that the real classes would never write.
#pragma once

#include <gtest/gtest.h>

#include <functional>
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

// The keys of the first record of `className` in an archive ("$class" left
// out).
inline std::set<std::string> ArchivedKeys(std::span<const uint8_t> bytes,
                                          std::string_view className) {
  const Value content = ArchiveContent(bytes);
  if (const Array* objects = content["$objects"].array()) {
    for (const Value& entry : *objects) {
      const Dictionary* keys = entry.dictionary();
      const Value cls = entry["$class"];
      if (!keys || !cls.string() || *cls.string() != className) continue;
      std::set<std::string> out;
      for (const auto& [key, value] : *keys) {
        if (key != "$class") out.insert(key);
      }
      return out;
    }
  }
  ADD_FAILURE() << "no " << className << " in the archive";
  return {};
}

// The keys every KXFeedback writes when all its fields are set.
inline std::set<std::string> FeedbackKeys(std::set<std::string> own = {}) {
  std::set<std::string> keys = {
      "timestamp",          "identifier",      "bundleID",
      "protectionClass",    "externalIdentifier", "domain",
      "input",              "results",         "fbq",
      "web_fbq",            "predictionIdentifier", "resultSetIdentifier",
      "keyboardLanguage",   "geoUserSessionIDString", "geoUserSequenceNumber",
      "geoUserSessionStartTime", "geoPlaceData"};
  keys.merge(own);
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
  result->setActivityIsPublic(true);
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
