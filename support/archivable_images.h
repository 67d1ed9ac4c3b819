// The small picture records that result properties may carry and that the
// secure archive admits: the platform image (KXImage), the platform colour
// (KXColor), and the server search client's image family (VNTImage and its
// maps-category, calendar and sprite variants).
//
// They are plain value records: public fields, equality by value, keyed
// coding under the field names. Absent optional fields stay absent through
// an archive, and empty ones stay empty.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kx/value.h"
#include "support/archivable.h"

namespace kx {

// Registers the classes of this file with the archive class registry; once
// per process, any thread.
void RegisterArchivableImageClasses();

class KXImage : public Object, public Archivable {
 public:
  static constexpr const char* kClassName = "KXImage";
  std::optional<Value::Bytes> data;  // encoded picture (PNG, JPEG...)
  double scale = 1.0;         // pixels per point

  std::string className() const override { return kClassName; }
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;
  bool initWithCoder(KeyedUnarchiver& coder) override;
  bool supportsSecureCoding() const override { return true; }
};

class KXColor : public Object, public Archivable {
 public:
  static constexpr const char* kClassName = "KXColor";
  // Components in [0, 1], sRGB.
  double red = 0, green = 0, blue = 0, alpha = 1;

  std::string className() const override { return kClassName; }
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;
  bool initWithCoder(KeyedUnarchiver& coder) override;
  bool supportsSecureCoding() const override { return true; }
};

// An image the server search service refers to: by identifier or address,
// or carried inline.
class VNTImage : public Object, public Archivable {
 public:
  static constexpr const char* kClassName = "VNTImage";
  std::optional<std::string> identifier;
  std::optional<std::string> urlString;
  std::optional<Value::Bytes> imageData;
  double scale = 1.0;
  Size size;  // in points

  std::string className() const override { return kClassName; }
  bool isEqual(const Object& other) const override;
  size_t hash() const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;
  bool initWithCoder(KeyedUnarchiver& coder) override;
  bool supportsSecureCoding() const override { return true; }
};

// The symbol of a maps search category.
class VNTMapsSearchCategoryImage : public VNTImage {
 public:
  static constexpr const char* kClassName = "VNTMapsSearchCategoryImage";
  std::optional<std::string> categoryIdentifier;

  std::string className() const override { return kClassName; }
  bool isEqual(const Object& other) const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;
  bool initWithCoder(KeyedUnarchiver& coder) override;
};

// A calendar page showing a day.
class VNTCalendarImage : public VNTImage {
 public:
  static constexpr const char* kClassName = "VNTCalendarImage";
  Date date;

  std::string className() const override { return kClassName; }
  bool isEqual(const Object& other) const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;
  bool initWithCoder(KeyedUnarchiver& coder) override;
};

// One cell of a sprite sheet.
class VNTSpriteImage : public VNTImage {
 public:
  static constexpr const char* kClassName = "VNTSpriteImage";
  int64_t spriteIndex = 0;

  std::string className() const override { return kClassName; }
  bool isEqual(const Object& other) const override;
  void encodeWithCoder(KeyedArchiver& coder) const override;
  bool initWithCoder(KeyedUnarchiver& coder) override;
};

}  // namespace kx
