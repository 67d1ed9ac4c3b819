#include <cctype>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/prefs/preferences.h"
#include "platform/process/process_info.h"

namespace kx {
namespace {

// Registered fallbacks. The dictionary is replaced as a whole, never changed
// in place, so a reader may use its snapshot without holding the mutex.
class Registry {
 public:
  std::shared_ptr<const Dictionary> Snapshot() {
    std::lock_guard<std::mutex> lock(mutex_);
    return defaults_;
  }
  void Add(const Dictionary& more) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto merged = std::make_shared<Dictionary>(*defaults_);
    for (const auto& [key, value] : more) merged->insert_or_assign(key, value);
    defaults_ = std::move(merged);
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<const Dictionary> defaults_ = std::make_shared<const Dictionary>();
};

Registry& TheRegistry() {
  static Registry* registry = new Registry;  // outlives every static destructor
  return *registry;
}

const char* SkipBlanks(const char* s) {
  while (std::isspace(static_cast<unsigned char>(*s))) ++s;
  return s;
}

int64_t IntegerFromString(const std::string& s) {
  // strtoll already skips blanks, takes a sign, stops at the first
  // non-digit and saturates on overflow.
  return std::strtoll(s.c_str(), nullptr, 10);
}

bool BoolFromString(const std::string& s) {
  const char* p = SkipBlanks(s.c_str());
  if (*p == '+' || *p == '-') ++p;
  while (*p == '0') ++p;
  const char c = *p;
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

}  // namespace

Value UserDefaults::ObjectForKey(std::string_view key) {
  Value stored = PreferenceStore::CopyValue(key, BundleIdentifier());
  if (!stored.isNil()) return stored;
  const std::shared_ptr<const Dictionary> defaults = TheRegistry().Snapshot();
  auto it = defaults->find(key);
  return it == defaults->end() ? Value() : it->second;
}

int64_t UserDefaults::IntegerForKey(std::string_view key) {
  const Value value = ObjectForKey(key);
  if (const Number* n = value.number()) return n->int64Value();
  if (const std::string* s = value.string()) return IntegerFromString(*s);
  return 0;
}

bool UserDefaults::BoolForKey(std::string_view key) {
  const Value value = ObjectForKey(key);
  if (const Number* n = value.number()) return n->boolValue();
  if (const std::string* s = value.string()) return BoolFromString(*s);
  return false;
}

void UserDefaults::SetObject(const Value& value, std::string_view key) {
  PreferenceStore::SetValue(key, value, BundleIdentifier());
}

void UserDefaults::RegisterDefaults(const Dictionary& defaults) {
  TheRegistry().Add(defaults);
}

}  // namespace kx
