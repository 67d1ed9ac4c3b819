// WireCodable: the base of records coded in the Protocol Buffers wire format
// (the search result and the result section).
//
// A record writes its fields in its own order with writeTo and reads them in
// any order with readFrom, which returns false on damaged or truncated input
// after keeping the fields decoded so far. Decoding never throws.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "kx/value.h"
#include "kx/WireReader.h"
#include "kx/WireWriter.h"

class KX_EXPORT WireCodable : public kx::Object {
 public:
  // Decodes fields from the reader into this record; false when the reader's
  // bytes are damaged.
  virtual bool readFrom(WireReader& reader) = 0;
  // Appends this record's fields.
  virtual void writeTo(WireWriter& writer) const = 0;

  // The record encoded on its own.
  std::vector<uint8_t> data() const;
  // Decodes `bytes` into this record; the result of readFrom.
  bool initWithData(std::span<const uint8_t> bytes);

  // A new record of type T decoded from `bytes`, or null when they do not
  // decode.
  template <class T>
  static std::shared_ptr<T> FromData(std::span<const uint8_t> bytes) {
    auto record = std::make_shared<T>();
    if (!record->initWithData(bytes)) return nullptr;
    return record;
  }
};
