// Records that travel in keyed archives implement this interface; the
// archiver and unarchiver themselves stay inside the library.
#pragma once

#include "kx/export.h"

namespace kx {

class KeyedArchiver;
class KeyedUnarchiver;

class KX_EXPORT Archivable {
 public:
  virtual ~Archivable() = default;
  // Writes the record's fields under its keys. A subclass calls its parent's
  // encodeWithCoder first.
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
  // Reads the fields into this empty instance. Returning false makes the
  // record decode as nil; calling coder.failWithError fails the whole
  // archive. A subclass calls its parent's initWithCoder first.
  virtual bool initWithCoder(KeyedUnarchiver& coder) = 0;
  // Classes that validate what they decode declare it; only they are
  // archived and unarchived when secure coding is required.
  virtual bool supportsSecureCoding() const { return false; }
};

}  // namespace kx
