// Records that travel in keyed archives, and the registry of their classes.
//
// A record class derives from kx::Object (for its class name and identity)
// and from kx::Archivable (for its coding), and registers an empty-instance
// factory under its class name together with its superclass name. Decoding
// finds the class by the name stored in the archive, makes an empty instance
// and lets it read its fields; a class that is not registered cannot be
// decoded. Superclass names let a restriction to a class admit its
// subclasses, without instantiating anything to find out.
//
// Plain values (string, number, data, date, URL, array, dictionary, null,
// error, geometry) are not records: the archive codes them itself under the
// fixed class names below.
#pragma once

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kx/archivable.h"
#include "kx/value.h"

namespace kx {

class KeyedArchiver;
class KeyedUnarchiver;

// Class names of the plain values, as archives store them and as class
// restrictions name them.
namespace archive_class {
inline constexpr std::string_view kDictionary = "KXDictionary";
inline constexpr std::string_view kArray = "KXArray";
inline constexpr std::string_view kString = "KXString";
inline constexpr std::string_view kNumber = "KXNumber";
inline constexpr std::string_view kData = "KXData";
inline constexpr std::string_view kDate = "KXDate";
inline constexpr std::string_view kURL = "KXURL";
inline constexpr std::string_view kValue = "KXValue";  // point, size, rect
inline constexpr std::string_view kError = "KXError";
inline constexpr std::string_view kNull = "KXNull";
// True for the names above.
bool IsPlainValueClass(std::string_view name);
}  // namespace archive_class

// The class name an archive records for `value` (nil has none: empty).
std::string ArchiveClassNameOf(const Value& value);


// Makes an empty instance of one record class; it must derive from
// Archivable.
using ArchivableFactory = std::function<ObjectRef()>;

// Registers (or replaces) a record class. `superclass` is empty for a root
// class. Safe to call from any thread at any time.
void RegisterArchivableClass(std::string name, std::string superclass, ArchivableFactory factory);
template <class T>
void RegisterArchivableClass(std::string name, std::string superclass = {}) {
  RegisterArchivableClass(std::move(name), std::move(superclass),
                          [] { return ObjectRef(std::make_shared<T>()); });
}
bool IsArchivableClassRegistered(std::string_view name);
// An empty instance of a registered class; null when the name is unknown.
ObjectRef CreateArchivableInstance(std::string_view name);
// True when `name` is `ancestor` or descends from it through registered
// superclasses.
bool ArchivableClassIsKindOf(std::string_view name, std::string_view ancestor);

// Class names that a decoding step admits: insertion-ordered and without
// duplicates (adding a present name changes nothing).
class ArchiveClassSet {
 public:
  ArchiveClassSet() = default;
  ArchiveClassSet(std::initializer_list<std::string_view> names);
  void add(std::string_view name);
  const std::vector<std::string>& names() const { return names_; }
  bool empty() const { return names_.empty(); }
  bool contains(std::string_view name) const;
  // True when objects of class `name` may be decoded: the class or one of
  // its registered superclasses is in the set.
  bool allows(std::string_view name) const;
  bool operator==(const ArchiveClassSet&) const = default;

 private:
  std::vector<std::string> names_;
};

}  // namespace kx
