// The preference store: one property-list file per preference domain under
// $XDG_CONFIG_HOME/orvex/preferences/<domain>.plist (KX_PREFERENCES_DIR
// overrides the directory).
//
// A writer takes an advisory lock on "<domain>.plist.lock", reloads, changes
// and replaces the file atomically (temporary file, fsync, rename), so a crash
// mid-write never damages the file. Readers reload a file that changed on
// disk; two processes see each other's writes after synchronising. A corrupt
// file reads as empty, with one level-3 log line.
#pragma once

#include <string>
#include <string_view>

#include "kx/value.h"

namespace kx {

class PreferenceStore {
 public:
  // The value for `key` in `domain`; nil when absent.
  static Value CopyValue(std::string_view key, std::string_view domain);
  // Every key of `domain`.
  static Dictionary CopyAll(std::string_view domain);
  // Stores `value` (nil removes the key) and writes the domain through.
  static void SetValue(std::string_view key, const Value& value, std::string_view domain);
  // Writes pending changes and picks up changes made by other processes.
  // Returns false when the file could not be written.
  static bool Synchronize(std::string_view domain);
  static std::string DirectoryPath();
  static std::string PathForDomain(std::string_view domain);
};

// The process's own defaults: the domain of its bundle identifier, with
// fallbacks registered by the process.
class UserDefaults {
 public:
  static Value ObjectForKey(std::string_view key);
  // The integer value of a number (or numeric string); 0 otherwise.
  static int64_t IntegerForKey(std::string_view key);
  static bool BoolForKey(std::string_view key);
  static void SetObject(const Value& value, std::string_view key);
  static void RegisterDefaults(const Dictionary& defaults);
};

}  // namespace kx
