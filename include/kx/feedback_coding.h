// The keyed coding of the feedback records: each record class lists its
// archived fields once, in encoding order, as a table of (key, getter,
// setter, options); Coded<Self, Base> walks the table after Base's own
// fields. The field kinds and their coding live inside the library.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "kx/archivable.h"
#include "kx/export.h"
#include "kx/value.h"

namespace kx {

// True once the unarchiver has failed (a class mismatch, a damaged archive).
KX_EXPORT bool UnarchiverFailed(const KeyedUnarchiver& coder);

template <class T>
struct FieldSpec {
  std::string_view key;
  unsigned options;
  void (*encode)(const T& record, KeyedArchiver& coder, std::string_view key, unsigned options);
  void (*decode)(T& record, KeyedUnarchiver& coder, std::string_view key, unsigned options);
};

// Root of the field-coded records: archivable with nothing of its own.
// Every such record declares secure coding support, since it checks the
// class of everything it decodes.
class KX_EXPORT CodedRoot : public Object, public Archivable {
 public:
  void encodeWithCoder(KeyedArchiver&) const override {}
  bool initWithCoder(KeyedUnarchiver&) override { return true; }
  bool supportsSecureCoding() const override { return true; }
};

// Gives a record class its class name, its `feedback` factory and its keyed
// coding from its table. `Self` declares `kClassName` and a private static
// `CodedFields()` returning its rows, and befriends this class.
template <class Self, class Base>
class Coded : public Base {
 public:
  // A new, empty record of the class.
  static std::shared_ptr<Self> feedback() { return std::make_shared<Self>(); }

  std::string className() const override { return Self::kClassName; }

  void encodeWithCoder(KeyedArchiver& coder) const override {
    Base::encodeWithCoder(coder);
    const Self& self = static_cast<const Self&>(*this);
    for (const FieldSpec<Self>& field : Self::CodedFields()) {
      field.encode(self, coder, field.key, field.options);
    }
  }

  bool initWithCoder(KeyedUnarchiver& coder) override {
    if (!Base::initWithCoder(coder)) return false;
    Self& self = static_cast<Self&>(*this);
    for (const FieldSpec<Self>& field : Self::CodedFields()) {
      field.decode(self, coder, field.key, field.options);
      if (UnarchiverFailed(coder)) return false;
    }
    return true;
  }
};

}  // namespace kx
