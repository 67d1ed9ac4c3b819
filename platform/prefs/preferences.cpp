// The preference store keeps one cache entry per domain: the last version of
// the file it read or wrote, identified by its FileStamp, plus the changes of
// this process that are not on disk yet.
//
// Reads: every read stats the file (one system call, well under a
// microsecond) and serves the cached dictionary while the stamp is unchanged;
// the file is read and decoded again only when another writer replaced it.
// A read therefore sees every write that any process completed before the
// read began, so code that re-reads preferences on a change notification
// never sees the old values, and no caller has to synchronise first.
//
// Writes are write-through: SetValue merges the change into the latest file
// under the writers' lock and replaces the file before it returns. A write
// that fails keeps the change pending in memory (this process keeps seeing
// it) and logs the reason; the next SetValue or Synchronize of the domain
// tries again.
//
// Locking: `mutex_` guards the domain table and every cache entry and is held
// only for in-memory work, never across file I/O or logging. A domain's
// `writeMutex` serialises this process's writers of that domain across the
// whole write; it is taken before `mutex_`, never after it.
#include "platform/prefs/preferences.h"

#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "kx/log.h"
#include "platform/process/directory.h"
#include "platform/prefs/preference_file.h"
#include "platform/process/process_info.h"
#include "base/property_list.h"

namespace kx {
namespace {

// Domain names become file names; anything that could leave the directory or
// collide with the store's own hidden temporary files is refused.
constexpr size_t kMaxDomainLength = 200;

bool IsValidDomain(std::string_view domain) {
  return !domain.empty() && domain.size() <= kMaxDomainLength && domain[0] != '.' &&
         domain.find('/') == std::string_view::npos &&
         domain.find('\0') == std::string_view::npos;
}

void LogInvalidDomain(std::string_view domain) {
  KXLOG(3, "Invalid preference domain name \"%s\"", domain);
}

struct PendingChange {
  Value value;  // nil removes the key
  uint64_t sequence;
};

struct Domain {
  explicit Domain(std::string p) : path(std::move(p)) {}
  const std::string path;
  std::mutex writeMutex;

  // Guarded by Store::mutex_.
  bool loaded = false;
  FileStamp stamp;
  std::shared_ptr<const Dictionary> values;
  std::optional<FileStamp> reportedProblem;  // the version last logged as bad
  std::map<std::string, PendingChange, std::less<>> pending;
};

class Store {
 public:
  // The entry of a valid domain, created on first use.
  Domain& Find(std::string_view name);
  // Brings the entry up to date with the file and returns holding `mutex_`.
  std::unique_lock<std::mutex> Fresh(Domain& domain);
  // Records a change to be written by the next Flush.
  void AddPending(Domain& domain, std::string_view key, const Value& value);
  // Writes the pending changes; true when none remain.
  bool Flush(Domain& domain);

 private:
  // Takes `contents` as the domain's file version (needs `mutex_`). Returns
  // the log line to emit once the mutex is released, or an empty string.
  std::string Install(Domain& domain, const PreferenceFileContents& contents);
  // Installs and logs, entering and leaving with `lock` held.
  void InstallAndReport(Domain& domain, const PreferenceFileContents& contents,
                        std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Domain>, std::less<>> domains_;
  uint64_t nextSequence_ = 1;
};

// Never destroyed: threads may still read preferences while static objects
// are being torn down at exit.
Store& TheStore() {
  static Store* store = new Store;
  return *store;
}

Domain& Store::Find(std::string_view name) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = domains_.find(name);
  if (it == domains_.end()) {
    it = domains_.emplace(std::string(name),
                          std::make_unique<Domain>(PreferenceStore::PathForDomain(name)))
             .first;
  }
  return *it->second;
}

std::string Store::Install(Domain& domain, const PreferenceFileContents& contents) {
  domain.loaded = true;
  domain.stamp = contents.stamp;
  domain.values = contents.values;
  using State = PreferenceFileContents::State;
  if (contents.state != State::Damaged && contents.state != State::Unreadable) return {};
  if (domain.reportedProblem == contents.stamp) return {};
  domain.reportedProblem = contents.stamp;
  return Format("Preference file \"%s\" %s (%s); reading it as empty", domain.path,
                contents.state == State::Damaged ? "is damaged" : "cannot be read",
                contents.problem);
}

void Store::InstallAndReport(Domain& domain, const PreferenceFileContents& contents,
                             std::unique_lock<std::mutex>& lock) {
  const std::string report = Install(domain, contents);
  if (report.empty()) return;
  lock.unlock();
  KXLOG(3, "%s", report);
  lock.lock();
}

std::unique_lock<std::mutex> Store::Fresh(Domain& domain) {
  const FileStamp current = StatPreferenceFile(domain.path);
  std::unique_lock<std::mutex> lock(mutex_);
  if (domain.loaded && domain.stamp == current) return lock;
  lock.unlock();
  const PreferenceFileContents contents = ReadPreferenceFile(domain.path);
  lock.lock();
  // Another thread may have installed a later version meanwhile; the next
  // read's stat corrects that, so there is no need to order versions here.
  if (!domain.loaded || domain.stamp != contents.stamp) {
    InstallAndReport(domain, contents, lock);
  }
  return lock;
}

void Store::AddPending(Domain& domain, std::string_view key, const Value& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t sequence = nextSequence_++;
  auto it = domain.pending.find(key);
  if (it == domain.pending.end()) {
    domain.pending.emplace(std::string(key), PendingChange{value, sequence});
  } else {
    it->second = PendingChange{value, sequence};
  }
}

bool Store::Flush(Domain& domain) {
  std::lock_guard<std::mutex> writing(domain.writeMutex);
  std::map<std::string, PendingChange, std::less<>> changes;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (domain.pending.empty()) return true;
    changes = domain.pending;
  }
  std::string error;
  bool written = false;
  const std::string directory = PreferenceStore::DirectoryPath();
  if (MakeDirectories(directory, &error)) {
    if (std::optional<PreferenceFileLock> fileLock =
            PreferenceFileLock::Acquire(domain.path, &error)) {
      // Reload under the lock so that changes of other writers survive.
      const PreferenceFileContents contents = ReadPreferenceFile(domain.path);
      {
        std::unique_lock<std::mutex> lock(mutex_);
        InstallAndReport(domain, contents, lock);
      }
      if (contents.state == PreferenceFileContents::State::Unreadable) {
        error = contents.problem;
      } else {
        if (contents.state == PreferenceFileContents::State::Damaged) {
          // Keep the damaged bytes for inspection instead of destroying them.
          const std::string aside = domain.path + ".damaged";
          unlink(aside.c_str());
          (void)link(domain.path.c_str(), aside.c_str());
        }
        Dictionary merged = *contents.values;
        for (const auto& [key, change] : changes) {
          if (change.value.isNil()) {
            merged.erase(key);
          } else {
            merged.insert_or_assign(key, change.value);
          }
        }
        auto holder = std::make_shared<const Value>(std::move(merged));
        FileStamp stamp;
        written = ReplacePreferenceFile(domain.path, *holder, contents.stamp, &stamp, &error);
        if (written) {
          std::lock_guard<std::mutex> lock(mutex_);
          domain.loaded = true;
          domain.stamp = stamp;
          domain.values = std::shared_ptr<const Dictionary>(holder, holder->dictionary());
          // Changes made while the file was being written stay pending.
          for (const auto& [key, change] : changes) {
            auto it = domain.pending.find(key);
            if (it != domain.pending.end() && it->second.sequence == change.sequence) {
              domain.pending.erase(it);
            }
          }
        }
      }
    }
  }
  if (!written) KXLOG(3, "Could not write preferences \"%s\": %s", domain.path, error);
  return written;
}

// The value of `key` in `domain` as this process sees it (needs the lock).
Value Lookup(const Domain& domain, std::string_view key) {
  if (!domain.pending.empty()) {
    auto change = domain.pending.find(key);
    if (change != domain.pending.end()) return change->second.value;
  }
  auto it = domain.values->find(key);
  return it == domain.values->end() ? Value() : it->second;
}

}  // namespace

Value PreferenceStore::CopyValue(std::string_view key, std::string_view domain) {
  if (!IsValidDomain(domain)) {
    LogInvalidDomain(domain);
    return Value();
  }
  Store& store = TheStore();
  Domain& entry = store.Find(domain);
  std::unique_lock<std::mutex> lock = store.Fresh(entry);
  return Lookup(entry, key);
}

Dictionary PreferenceStore::CopyAll(std::string_view domain) {
  if (!IsValidDomain(domain)) {
    LogInvalidDomain(domain);
    return Dictionary();
  }
  Store& store = TheStore();
  Domain& entry = store.Find(domain);
  std::unique_lock<std::mutex> lock = store.Fresh(entry);
  Dictionary all = *entry.values;
  for (const auto& [key, change] : entry.pending) {
    if (change.value.isNil()) {
      all.erase(key);
    } else {
      all.insert_or_assign(key, change.value);
    }
  }
  return all;
}

void PreferenceStore::SetValue(std::string_view key, const Value& value,
                               std::string_view domain) {
  if (!IsValidDomain(domain)) {
    LogInvalidDomain(domain);
    return;
  }
  if (!value.isNil()) {
    // Refuse what the file could not hold before it joins the pending
    // changes, where it would block every later write of the domain.
    std::string error;
    EncodeBinaryPropertyList(Value(MakeDictionary({{std::string(key), value}})), &error);
    if (!error.empty()) {
      KXLOG(3, "Refusing preference \"%s\" in domain \"%s\": %s", key, domain, error);
      return;
    }
  }
  Store& store = TheStore();
  Domain& entry = store.Find(domain);
  store.AddPending(entry, key, value);
  store.Flush(entry);
}

bool PreferenceStore::Synchronize(std::string_view domain) {
  if (!IsValidDomain(domain)) {
    LogInvalidDomain(domain);
    return false;
  }
  Store& store = TheStore();
  Domain& entry = store.Find(domain);
  const bool flushed = store.Flush(entry);
  store.Fresh(entry);
  return flushed;
}

std::string PreferenceStore::DirectoryPath() {
  // Never destroyed: threads that outlive main still read preferences.
  static const std::string& path = *new std::string([] {
    const char* dir = std::getenv("KX_PREFERENCES_DIR");
    if (dir && dir[0] == '/') return std::string(dir);
    return ConfigDirectory() + "/orvex/preferences";
  }());
  return path;
}

std::string PreferenceStore::PathForDomain(std::string_view domain) {
  if (!IsValidDomain(domain)) return std::string();
  std::string path = DirectoryPath();
  path += '/';
  path += domain;
  path += ".plist";
  return path;
}

}  // namespace kx
