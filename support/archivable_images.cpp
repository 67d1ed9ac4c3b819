#include "support/archivable_images.h"

#include <functional>
#include <mutex>

#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"

namespace kx {
namespace {

// Optional fields leave no key when absent, so absent and empty stay apart.
void EncodeOptional(KeyedArchiver& coder, const std::optional<std::string>& s,
                    std::string_view key) {
  if (s) coder.encodeObject(Value(*s), key);
}
void EncodeOptional(KeyedArchiver& coder, const std::optional<Value::Bytes>& d,
                    std::string_view key) {
  if (d) coder.encodeObject(Value(*d), key);
}
std::optional<std::string> DecodeOptionalString(KeyedUnarchiver& coder, std::string_view key) {
  Value v = coder.decodeObjectOfClass(archive_class::kString, key);
  if (const std::string* s = v.string()) return *s;
  return std::nullopt;
}
std::optional<Value::Bytes> DecodeOptionalData(KeyedUnarchiver& coder, std::string_view key) {
  Value v = coder.decodeObjectOfClass(archive_class::kData, key);
  if (const Value::Bytes* d = v.data()) return *d;
  return std::nullopt;
}

size_t HashBytes(const std::optional<Value::Bytes>& d) {
  if (!d) return 0;
  return std::hash<std::string_view>()(
      std::string_view(reinterpret_cast<const char*>(d->data()), d->size()));
}

// Equality of records demands the same class, not only equal fields.
template <class T>
const T* SameClass(const T& self, const Object& other) {
  if (self.className() != other.className()) return nullptr;
  return dynamic_cast<const T*>(&other);
}

}  // namespace

void RegisterArchivableImageClasses() {
  static std::once_flag once;
  std::call_once(once, [] {
    RegisterArchivableClass<KXImage>(KXImage::kClassName);
    RegisterArchivableClass<KXColor>(KXColor::kClassName);
    RegisterArchivableClass<VNTImage>(VNTImage::kClassName);
    RegisterArchivableClass<VNTMapsSearchCategoryImage>(VNTMapsSearchCategoryImage::kClassName,
                                                       VNTImage::kClassName);
    RegisterArchivableClass<VNTCalendarImage>(VNTCalendarImage::kClassName,
                                             VNTImage::kClassName);
    RegisterArchivableClass<VNTSpriteImage>(VNTSpriteImage::kClassName, VNTImage::kClassName);
  });
}

// KXImage

bool KXImage::isEqual(const Object& other) const {
  const KXImage* o = SameClass(*this, other);
  return o && data == o->data && scale == o->scale;
}
size_t KXImage::hash() const { return HashBytes(data) ^ std::hash<double>()(scale); }
void KXImage::encodeWithCoder(KeyedArchiver& coder) const {
  EncodeOptional(coder, data, "data");
  coder.encodeDouble(scale, "scale");
}
bool KXImage::initWithCoder(KeyedUnarchiver& coder) {
  data = DecodeOptionalData(coder, "data");
  scale = coder.containsValueForKey("scale") ? coder.decodeDouble("scale") : 1.0;
  return !coder.failed();
}

// KXColor

bool KXColor::isEqual(const Object& other) const {
  const KXColor* o = SameClass(*this, other);
  return o && red == o->red && green == o->green && blue == o->blue && alpha == o->alpha;
}
size_t KXColor::hash() const {
  std::hash<double> h;
  return h(red) ^ (h(green) << 1) ^ (h(blue) << 2) ^ (h(alpha) << 3);
}
void KXColor::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeDouble(red, "red");
  coder.encodeDouble(green, "green");
  coder.encodeDouble(blue, "blue");
  coder.encodeDouble(alpha, "alpha");
}
bool KXColor::initWithCoder(KeyedUnarchiver& coder) {
  red = coder.decodeDouble("red");
  green = coder.decodeDouble("green");
  blue = coder.decodeDouble("blue");
  alpha = coder.decodeDouble("alpha");
  return !coder.failed();
}

// VNTImage

bool VNTImage::isEqual(const Object& other) const {
  const VNTImage* o = SameClass(*this, other);
  return o && identifier == o->identifier && urlString == o->urlString &&
         imageData == o->imageData && scale == o->scale && size == o->size;
}
size_t VNTImage::hash() const {
  return std::hash<std::string>()(identifier.value_or("")) ^
         std::hash<std::string>()(urlString.value_or("")) ^ HashBytes(imageData);
}
void VNTImage::encodeWithCoder(KeyedArchiver& coder) const {
  EncodeOptional(coder, identifier, "identifier");
  EncodeOptional(coder, urlString, "url");
  EncodeOptional(coder, imageData, "imageData");
  coder.encodeDouble(scale, "scale");
  coder.encodeDouble(size.width, "width");
  coder.encodeDouble(size.height, "height");
}
bool VNTImage::initWithCoder(KeyedUnarchiver& coder) {
  identifier = DecodeOptionalString(coder, "identifier");
  urlString = DecodeOptionalString(coder, "url");
  imageData = DecodeOptionalData(coder, "imageData");
  scale = coder.containsValueForKey("scale") ? coder.decodeDouble("scale") : 1.0;
  size.width = coder.decodeDouble("width");
  size.height = coder.decodeDouble("height");
  return !coder.failed();
}

// VNTMapsSearchCategoryImage

bool VNTMapsSearchCategoryImage::isEqual(const Object& other) const {
  const auto* o = SameClass(*this, other);
  return o && VNTImage::isEqual(other) && categoryIdentifier == o->categoryIdentifier;
}
void VNTMapsSearchCategoryImage::encodeWithCoder(KeyedArchiver& coder) const {
  VNTImage::encodeWithCoder(coder);
  EncodeOptional(coder, categoryIdentifier, "categoryIdentifier");
}
bool VNTMapsSearchCategoryImage::initWithCoder(KeyedUnarchiver& coder) {
  if (!VNTImage::initWithCoder(coder)) return false;
  categoryIdentifier = DecodeOptionalString(coder, "categoryIdentifier");
  return !coder.failed();
}

// VNTCalendarImage

bool VNTCalendarImage::isEqual(const Object& other) const {
  const auto* o = SameClass(*this, other);
  return o && VNTImage::isEqual(other) && date == o->date;
}
void VNTCalendarImage::encodeWithCoder(KeyedArchiver& coder) const {
  VNTImage::encodeWithCoder(coder);
  coder.encodeDouble(date.secondsSinceReferenceDate, "date");
}
bool VNTCalendarImage::initWithCoder(KeyedUnarchiver& coder) {
  if (!VNTImage::initWithCoder(coder)) return false;
  date.secondsSinceReferenceDate = coder.decodeDouble("date");
  return !coder.failed();
}

// VNTSpriteImage

bool VNTSpriteImage::isEqual(const Object& other) const {
  const auto* o = SameClass(*this, other);
  return o && VNTImage::isEqual(other) && spriteIndex == o->spriteIndex;
}
void VNTSpriteImage::encodeWithCoder(KeyedArchiver& coder) const {
  VNTImage::encodeWithCoder(coder);
  coder.encodeInt64(spriteIndex, "spriteIndex");
}
bool VNTSpriteImage::initWithCoder(KeyedUnarchiver& coder) {
  if (!VNTImage::initWithCoder(coder)) return false;
  spriteIndex = coder.decodeInt64("spriteIndex");
  return !coder.failed();
}

}  // namespace kx
