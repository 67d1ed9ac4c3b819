// The preference store: one binary property-list file per preference domain
// under $XDG_CONFIG_HOME/orvex/preferences/<domain>.plist (KX_PREFERENCES_DIR
// overrides the directory; both are read once, on first use).
//
// A writer takes an advisory lock on "<domain>.plist.lock", reloads, changes
// and replaces the file atomically (temporary file, fsync, rename), so a crash
// mid-write never damages the file and concurrent writers in several
// processes never lose each other's keys. Every read checks the file's stamp
// (one stat) and reloads a file that another process replaced, so a read sees
// every write completed before it began. A damaged or unreadable file reads
// as empty, with one level-3 log line per version of the file; the next write
// replaces it and keeps the damaged bytes as "<domain>.plist.damaged".
//
// A domain name must be a plain file name: not empty, without "/", not
// starting with ".", at most 200 bytes. Other names are refused with a
// level-3 log line (reads give nil, writes do nothing).
//
// All functions are safe to call from any thread.
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
  // Stores `value` (nil removes the key) and writes the domain through: the
  // file holds the change when this returns. A value the property-list
  // format cannot hold (null, URL, object...) is refused with a log line. If
  // the file cannot be written the change stays pending in this process
  // (which keeps seeing it), the failure is logged, and the next SetValue or
  // Synchronize of the domain tries again.
  static void SetValue(std::string_view key, const Value& value, std::string_view domain);
  // Writes pending changes and picks up changes made by other processes.
  // Returns false when changes are pending and the file could not be written.
  static bool Synchronize(std::string_view domain);
  static std::string DirectoryPath();
  // The file of `domain`; empty for a name that is not a valid domain.
  static std::string PathForDomain(std::string_view domain);
};

// The process's own defaults: the domain named by BundleIdentifier() (read on
// every call, so SetBundleIdentifier takes effect at once), with fallbacks
// registered by the process for keys that domain lacks.
class UserDefaults {
 public:
  // The stored value, else the registered one, else nil.
  static Value ObjectForKey(std::string_view key);
  // A number converted to an integer (C conversion); a string's leading
  // decimal integer after optional blanks and sign ("42", " -7", "12abc",
  // "3.9" gives 3), saturated to the 64-bit range; 0 for anything else.
  static int64_t IntegerForKey(std::string_view key);
  // A number's truth (non-zero); for a string, true when its first
  // character after blanks, a sign and leading zeros is one of "YyTt1-9"
  // ("YES", "true", "1", "007"); false for anything else.
  static bool BoolForKey(std::string_view key);
  // Writes through to the preference store (nil removes the key).
  static void SetObject(const Value& value, std::string_view key);
  // Adds fallbacks; a key registered again takes the newer value. They are
  // never written to disk.
  static void RegisterDefaults(const Dictionary& defaults);
};

}  // namespace kx
