// KXSearchResultProtocol: what a producer's own result object offers so that
// the serializer can append it without it being a KXSearchResult record.
//
// The record class and this interface share one name on the platform the
// library grew up on; C++ cannot have both, so the interface carries the
// "Protocol" suffix. Every operation is optional: a class says which ones it
// implements through offeredOperations(), and the serializer asks that once
// per class (dynamic type), not once per object. A class must therefore
// answer the same mask for all its instances. Operations a class does not
// offer are never called.
//
// A foreign result is appended as a kx::Object (the serializer's entry point
// takes any object), so a concrete class derives from both:
//
//   class MailHit : public kx::Object, public KXSearchResultProtocol { ... };
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <optional>
#include <string_view>

#include "kx/value.h"

class KX_EXPORT KXSearchResultProtocol {
 public:
  // Bits of offeredOperations().
  enum Operation : uint32_t {
    kTitleUTF8String = 1u << 0,
    kSubtitleUTF8String = 1u << 1,
    kSummaryUTF8String = 1u << 2,
    kAuxiliaryTitleUTF8String = 1u << 3,
    kAuxiliarySubtitleUTF8String = 1u << 4,
    kURLUTF8String = 1u << 5,
    kIdentifier = 1u << 6,
    kGetBadgeValue = 1u << 7,
  };

  virtual ~KXSearchResultProtocol() = default;

  // The Operation bits this class implements; constant per class.
  virtual uint32_t offeredOperations() const = 0;

  // UTF-8 text, or nothing. The view must stay valid until the next call on
  // the same object; the serializer copies it at once.
  virtual std::optional<std::string_view> titleUTF8String() const { return std::nullopt; }
  virtual std::optional<std::string_view> subtitleUTF8String() const { return std::nullopt; }
  virtual std::optional<std::string_view> summaryUTF8String() const { return std::nullopt; }
  virtual std::optional<std::string_view> auxiliaryTitleUTF8String() const { return std::nullopt; }
  virtual std::optional<std::string_view> auxiliarySubtitleUTF8String() const {
    return std::nullopt;
  }
  virtual std::optional<std::string_view> URLUTF8String() const { return std::nullopt; }
  virtual uint64_t identifier() const { return 0; }
  // Fills `badge` and returns true when the object shows a badge.
  virtual bool getBadgeValue(kx::Value* badge) const {
    (void)badge;
    return false;
  }
};
