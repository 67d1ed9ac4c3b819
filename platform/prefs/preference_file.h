// One preference domain's file on disk: reading it, locking it for writing,
// and replacing it atomically.
//
// Invariants kept by every writer that goes through ReplacePreferenceFile
// while holding the domain's PreferenceFileLock:
// - The file at `path` is always a complete encoding: a new version is
//   written to a temporary file in the same directory, flushed to disk and
//   renamed over the old one, and the directory is flushed after the rename.
//   A writer that dies at any moment leaves either the old or the new version.
// - Each version's modification time is strictly later than the one it
//   replaces, so a FileStamp identifies a version even when the kernel hands
//   a freed inode number to the next version and the size stays the same.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kx/value.h"

namespace kx {

// What stat says about one version of a file. Two stamps compare equal when
// they describe the same version (or both describe a missing file).
struct FileStamp {
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  int64_t modifiedNs = 0;
  bool operator==(const FileStamp&) const = default;
};

// Stamp of the file at `path` now; a path that cannot be inspected (missing,
// or a component that is not a directory) gives a stamp that does not exist.
FileStamp StatPreferenceFile(const std::string& path);

struct PreferenceFileContents {
  enum class State {
    Missing,     // no file: an empty domain
    Valid,       // decoded; `values` holds the domain
    Damaged,     // not a property list with a dictionary at the top
    Unreadable,  // exists but cannot be read (a directory, an I/O error...)
  };
  State state = State::Missing;
  // Never null; empty unless Valid.
  std::shared_ptr<const Dictionary> values;
  // The version that was read (taken from the open file, so that it matches
  // the bytes even when another writer replaces the file meanwhile).
  FileStamp stamp;
  // Why the file is Damaged or Unreadable.
  std::string problem;
};

PreferenceFileContents ReadPreferenceFile(const std::string& path);

// The writers' advisory lock (flock) on "<path>.lock". Held for the object's
// lifetime; excludes writers in other processes and other threads alike.
class PreferenceFileLock {
 public:
  // Blocks until the lock is held; nullopt with `*error` set when the lock
  // file cannot be opened or created.
  static std::optional<PreferenceFileLock> Acquire(const std::string& path, std::string* error);
  PreferenceFileLock(PreferenceFileLock&& other) noexcept;
  PreferenceFileLock& operator=(PreferenceFileLock&&) = delete;
  ~PreferenceFileLock();

 private:
  explicit PreferenceFileLock(int fd) : fd_(fd) {}
  int fd_;
};

// Replaces the file at `path` with `values`, a dictionary. The caller holds the lock and
// passes the stamp of the version it read under that lock. On success
// `*written` is the new version's stamp. Temporary files that a killed
// writer left behind are removed on the way. On failure the old version
// stays and `*error` says why.
bool ReplacePreferenceFile(const std::string& path, const Value& values,
                           const FileStamp& previous, FileStamp* written, std::string* error);

}  // namespace kx
