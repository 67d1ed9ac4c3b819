#include "feedback/coded_fields.h"

#include "kx/format.h"
#include "kx/log.h"

namespace kx::field_coding {

bool HoldsCodedRecord(const Value& value) {
  if (const ObjectRef* object = value.object()) {
    return dynamic_cast<const CodedRoot*>(object->get()) != nullptr;
  }
  if (const Array* elements = value.array()) {
    for (const Value& element : *elements) {
      if (HoldsCodedRecord(element)) return true;
    }
  } else if (const Dictionary* entries = value.dictionary()) {
    for (const auto& [key, element] : *entries) {
      if (HoldsCodedRecord(element)) return true;
    }
  }
  return false;
}

Value DecodeFieldObject(KeyedUnarchiver& coder, std::string_view key, std::string_view className,
                        unsigned options) {
  if (options & kUnrestricted) return coder.decodeObject(key);
  return coder.decodeObjectOfClass(className, key);
}

void RejectFieldValue(KeyedUnarchiver& coder, std::string_view key, std::string_view className,
                      const Value& found, unsigned options) {
  // A container is refused for what it holds, not for its own class.
  std::string what = ArchiveClassNameOf(found);
  if (what == className) what += " with contents not allowed here";
  if (options & kUnrestricted) {
    KXLOG(4, "feedback key %s holds %s, not %s; left empty", key, what, className);
    return;
  }
  coder.failWithError(Format("feedback key %s holds %s where %s is required", key, what, className));
}

}  // namespace kx::field_coding

namespace kx {

bool UnarchiverFailed(const KeyedUnarchiver& coder) { return coder.failed(); }

}  // namespace kx
