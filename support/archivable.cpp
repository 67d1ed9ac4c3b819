#include "support/archivable.h"

#include <map>
#include <mutex>
#include <shared_mutex>

namespace kx {
namespace {

struct ClassEntry {
  std::string superclass;
  ArchivableFactory factory;
};

struct Registry {
  std::shared_mutex mutex;
  std::map<std::string, ClassEntry, std::less<>> classes;
};

Registry& TheRegistry() {
  static auto* registry = new Registry();
  return *registry;
}

// Superclass chains come from registrations, which may be wrong or cyclic;
// a walk never takes more steps than this.
constexpr int kMaxClassChain = 64;

}  // namespace

namespace archive_class {
bool IsPlainValueClass(std::string_view name) {
  for (std::string_view plain :
       {kDictionary, kArray, kString, kNumber, kData, kDate, kURL, kValue, kError, kNull}) {
    if (name == plain) return true;
  }
  return false;
}
}  // namespace archive_class

std::string ArchiveClassNameOf(const Value& value) {
  using K = Value::Kind;
  switch (value.kind()) {
    case K::Nil: return {};
    case K::Null: return std::string(archive_class::kNull);
    case K::Number: return std::string(archive_class::kNumber);
    case K::String: return std::string(archive_class::kString);
    case K::Data: return std::string(archive_class::kData);
    case K::Date: return std::string(archive_class::kDate);
    case K::URL: return std::string(archive_class::kURL);
    case K::Array: return std::string(archive_class::kArray);
    case K::Dictionary: return std::string(archive_class::kDictionary);
    case K::Error: return std::string(archive_class::kError);
    case K::Point:
    case K::Size:
    case K::Rect: return std::string(archive_class::kValue);
    case K::Object: return (*value.object())->className();
  }
  return {};
}

void RegisterArchivableClass(std::string name, std::string superclass, ArchivableFactory factory) {
  Registry& r = TheRegistry();
  std::unique_lock lock(r.mutex);
  r.classes[std::move(name)] = ClassEntry{std::move(superclass), std::move(factory)};
}

bool IsArchivableClassRegistered(std::string_view name) {
  Registry& r = TheRegistry();
  std::shared_lock lock(r.mutex);
  return r.classes.find(name) != r.classes.end();
}

ObjectRef CreateArchivableInstance(std::string_view name) {
  ArchivableFactory factory;
  {
    Registry& r = TheRegistry();
    std::shared_lock lock(r.mutex);
    auto it = r.classes.find(name);
    if (it == r.classes.end()) return nullptr;
    factory = it->second.factory;
  }
  // Outside the lock: a factory may itself look classes up.
  return factory ? factory() : nullptr;
}

bool ArchivableClassIsKindOf(std::string_view name, std::string_view ancestor) {
  if (name == ancestor) return true;
  Registry& r = TheRegistry();
  std::shared_lock lock(r.mutex);
  std::string_view current = name;
  for (int step = 0; step < kMaxClassChain; ++step) {
    auto it = r.classes.find(current);
    if (it == r.classes.end() || it->second.superclass.empty()) return false;
    current = it->second.superclass;
    if (current == ancestor) return true;
  }
  return false;
}

ArchiveClassSet::ArchiveClassSet(std::initializer_list<std::string_view> names) {
  for (std::string_view n : names) add(n);
}

void ArchiveClassSet::add(std::string_view name) {
  if (!contains(name)) names_.emplace_back(name);
}

bool ArchiveClassSet::contains(std::string_view name) const {
  for (const std::string& n : names_) {
    if (n == name) return true;
  }
  return false;
}

bool ArchiveClassSet::allows(std::string_view name) const {
  if (contains(name)) return true;
  if (archive_class::IsPlainValueClass(name)) return false;  // plain values have no superclass
  for (const std::string& n : names_) {
    if (ArchivableClassIsKindOf(name, n)) return true;
  }
  return false;
}

}  // namespace kx
