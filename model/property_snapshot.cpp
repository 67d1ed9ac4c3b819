#include "model/property_snapshot.h"

#include <utility>

namespace kx {
namespace {

// A copy of `value` whose arrays and dictionaries are new storage; false
// when it holds a record.
bool Detach(const Value& value, Value* out);

bool DetachEntries(const Dictionary& dict, Dictionary* out) {
  for (const auto& [key, value] : dict) {
    Value copy;
    if (!Detach(value, &copy)) return false;
    out->emplace(key, std::move(copy));
  }
  return true;
}

bool Detach(const Value& value, Value* out) {
  switch (value.kind()) {
    case Value::Kind::Object:
      return false;
    case Value::Kind::Array: {
      Array copy;
      copy.reserve(value.array()->size());
      for (const Value& element : *value.array()) {
        if (!Detach(element, &copy.emplace_back())) return false;
      }
      *out = Value(std::move(copy));
      return true;
    }
    case Value::Kind::Dictionary: {
      Dictionary copy;
      if (!DetachEntries(*value.dictionary(), &copy)) return false;
      *out = Value(std::move(copy));
      return true;
    }
    default:
      *out = value;  // immutable: sharing its storage is safe
      return true;
  }
}

bool Unchanged(const Value& now, const Value& then);

bool SameEntries(const Dictionary& now, const Dictionary& then) {
  if (now.size() != then.size()) return false;
  for (auto a = now.begin(), b = then.begin(); a != now.end(); ++a, ++b) {
    if (a->first != b->first || !Unchanged(a->second, b->second)) return false;
  }
  return true;
}

bool Unchanged(const Value& now, const Value& then) {
  if (now.kind() != then.kind()) return false;
  switch (now.kind()) {
    case Value::Kind::Array: {
      const Array& a = *now.array();
      const Array& b = *then.array();
      if (a.size() != b.size()) return false;
      for (size_t i = 0; i < a.size(); ++i) {
        if (!Unchanged(a[i], b[i])) return false;
      }
      return true;
    }
    case Value::Kind::Dictionary:
      return SameEntries(*now.dictionary(), *then.dictionary());
    default:
      return now.isIdenticalTo(then);
  }
}

}  // namespace

std::optional<PropertySnapshot> PropertySnapshot::Take(const Dictionary& dict) {
  Dictionary entries;
  if (!DetachEntries(dict, &entries)) return std::nullopt;
  return PropertySnapshot(std::move(entries));
}

bool PropertySnapshot::matches(const Dictionary& dict) const { return SameEntries(dict, entries_); }

}  // namespace kx
