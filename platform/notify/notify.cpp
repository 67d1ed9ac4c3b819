#include "platform/notify/notify.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kx/log.h"
#include "platform/dispatch/asio.h"
#include "platform/process/process_info.h"
#include "kx/queue.h"
#include "platform/dispatch/thread_pool.h"

namespace kx::notify {

class Observation {
 public:
  Observation(std::string n, std::string f, std::shared_ptr<Queue> q, Callback cb, const void* o)
      : name(std::move(n)), file(std::move(f)), queue(std::move(q)), callback(std::move(cb)),
        owner(o) {}
  const std::string name;
  const std::string file;
  const std::shared_ptr<Queue> queue;
  const Callback callback;
  const void* const owner;
  // Set before the observation leaves the table; every queued call checks
  // it on the target queue before starting.
  std::atomic<bool> cancelled{false};
  uint64_t lastSeen = 0;  // guarded by Observers::mu
};

namespace {

// One name's counter file, open for the life of the process: a name is
// posted or read many times, and opening is the expensive part of a post.
//
// flock() locks belong to the open file description, so every thread of
// this process holding `fd` would share one lock: a second thread's
// LOCK_EX succeeds at once, and a reader's LOCK_SH or LOCK_UN converts or
// drops a writer's lock. `mu` therefore admits one thread of the process at
// a time to the flock, which then serialises the processes.
struct Counter {
  explicit Counter(int f) : fd(f) {}
  const int fd;
  std::mutex mu;
};

class CounterFiles {
 public:
  static CounterFiles& Shared() {
    static CounterFiles* files = new CounterFiles;
    return *files;
  }

  // Null (logged) when the file cannot be opened or the directory is
  // unusable. Counters are never freed, so the pointer stays valid.
  Counter* counterFor(const std::string& file) {
    std::lock_guard lock(mu_);
    auto it = counters_.find(file);
    if (it != counters_.end()) return it->second.get();
    if (!resolveDirectoryLocked()) return nullptr;
    const std::string path = dir_ + "/" + file;
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
      KXLOG(3, "Cannot open notification counter %s: %s", path, std::strerror(errno));
      return nullptr;
    }
    return counters_.emplace(file, std::make_unique<Counter>(fd)).first->second.get();
  }

  // Nullopt (logged) while the directory is unusable; a later call tries
  // again, so a runtime directory that appears later is picked up.
  std::optional<std::string> directory() {
    std::lock_guard lock(mu_);
    if (!resolveDirectoryLocked()) return std::nullopt;
    return dir_;
  }

 private:
  CounterFiles() = default;

  // Posting and observing report failure instead of throwing, so that
  // callers which only announce a change (after storing it) never unwind.
  bool resolveDirectoryLocked() {
    if (!dir_.empty()) return true;
    try {
      dir_ = NotifyDirectory();
    } catch (const DirectoryError& e) {
      KXLOG(3, "Cannot use the notification directory: %s", e.reason());
      return false;
    }
    return true;
  }

  std::mutex mu_;
  std::string dir_;  // empty until resolved; guarded by mu_
  std::unordered_map<std::string, std::unique_ptr<Counter>> counters_;
};

// Holds the counter's process-local mutex and its file lock.
class CounterLock {
 public:
  CounterLock(Counter& counter, int operation) : counter_(counter), lock_(counter.mu) {
    while (flock(counter_.fd, operation) != 0 && errno == EINTR) {
    }
  }
  ~CounterLock() {
    while (flock(counter_.fd, LOCK_UN) != 0 && errno == EINTR) {
    }
  }
  CounterLock(const CounterLock&) = delete;
  CounterLock& operator=(const CounterLock&) = delete;

  // The counter is 8 native-endian bytes; a file shorter than that has
  // never been posted.
  uint64_t read() const {
    uint64_t value = 0;
    return pread(counter_.fd, &value, sizeof value, 0) == static_cast<ssize_t>(sizeof value)
               ? value
               : 0;
  }
  bool write(uint64_t value) const {
    return pwrite(counter_.fd, &value, sizeof value, 0) == static_cast<ssize_t>(sizeof value);
  }

 private:
  Counter& counter_;
  std::lock_guard<std::mutex> lock_;
};

uint64_t ReadCounter(const std::string& file) {
  Counter* counter = CounterFiles::Shared().counterFor(file);
  if (!counter) return 0;
  return CounterLock(*counter, LOCK_SH).read();
}

// The observer table and the process's one inotify watch on the directory.
class Observers {
 public:
  static Observers& Shared() {
    static Observers* observers = new Observers;
    return *observers;
  }

  void add(const std::shared_ptr<Observation>& observation) {
    {
      // Retried by later observers while the directory is unusable.
      std::lock_guard lock(watchMu_);
      if (!stream_) startWatching();
    }
    std::lock_guard lock(mu_);
    // Read under the lock so that the watcher compares against either the
    // generation before this read or after it, never a stale one.
    observation->lastSeen = ReadCounter(observation->file);
    byFile_[observation->file].push_back(observation);
  }

  void remove(const std::shared_ptr<Observation>& observation) {
    observation->cancelled.store(true, std::memory_order_release);
    std::lock_guard lock(mu_);
    auto it = byFile_.find(observation->file);
    if (it == byFile_.end()) return;
    std::erase(it->second, observation);
    if (it->second.empty()) byFile_.erase(it);
  }

  void removeOwner(const void* owner) {
    std::lock_guard lock(mu_);
    for (auto it = byFile_.begin(); it != byFile_.end();) {
      std::erase_if(it->second, [owner](const std::shared_ptr<Observation>& o) {
        if (o->owner != owner) return false;
        o->cancelled.store(true, std::memory_order_release);
        return true;
      });
      it = it->second.empty() ? byFile_.erase(it) : std::next(it);
    }
  }

 private:
  Observers() = default;

  void startWatching() {
    const std::optional<std::string> directory = CounterFiles::Shared().directory();
    if (!directory) return;
    const std::string& dir = *directory;
    int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0 || inotify_add_watch(fd, dir.c_str(), IN_MODIFY) < 0) {
      KXLOG(3, "Cannot watch notification directory %s: %s", dir, std::strerror(errno));
      if (fd >= 0) close(fd);
      return;
    }
    stream_ = new asio::posix::stream_descriptor(ThreadPool::Shared().context(), fd);
    arm();
  }

  // One wait is outstanding at a time, so `onReadable` never runs twice at
  // once.
  void arm() {
    stream_->async_wait(asio::posix::stream_descriptor::wait_read,
                        [this](const std::error_code& ec) {
                          if (ec) {
                            KXLOG(3, "Notification watch failed: %s", ec.message());
                            return;
                          }
                          onReadable();
                          arm();
                        });
  }

  void onReadable() {
    std::unordered_set<std::string> changed;
    bool overflow = false;
    alignas(inotify_event) char buffer[8192];
    for (;;) {
      ssize_t n = read(stream_->native_handle(), buffer, sizeof buffer);
      if (n <= 0) {
        if (n < 0 && errno == EINTR) continue;
        break;
      }
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        if (event->mask & IN_Q_OVERFLOW) overflow = true;
        if (event->mask & IN_IGNORED)
          KXLOG(3, "Notification directory %s went away",
                CounterFiles::Shared().directory().value_or(""));
        if (event->len > 0) changed.emplace(event->name);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    // Events were lost: every observed name may have moved.
    if (overflow) {
      std::lock_guard lock(mu_);
      for (const auto& [file, list] : byFile_) changed.insert(file);
    }
    for (const std::string& file : changed) deliver(file);
  }

  void deliver(const std::string& file) {
    {
      std::lock_guard lock(mu_);
      if (!byFile_.contains(file)) return;
    }
    const uint64_t generation = ReadCounter(file);
    std::lock_guard lock(mu_);
    auto it = byFile_.find(file);
    if (it == byFile_.end()) return;
    for (const auto& observation : it->second) {
      if (observation->lastSeen == generation) continue;
      observation->lastSeen = generation;
      observation->queue->async([observation] {
        if (!observation->cancelled.load(std::memory_order_acquire))
          observation->callback(observation->name);
      });
    }
  }

  std::mutex watchMu_;
  // Set once, under watchMu_; leaked with the table.
  asio::posix::stream_descriptor* stream_ = nullptr;
  std::mutex mu_;
  std::unordered_map<std::string, std::vector<std::shared_ptr<Observation>>> byFile_;
};

class Tokens {
 public:
  static Tokens& Shared() {
    static Tokens* tokens = new Tokens;
    return *tokens;
  }

  int32_t add(std::string file) {
    std::lock_guard lock(mu_);
    int32_t token = next_++;
    entries_.emplace(token, Entry{std::move(file), std::nullopt});
    return token;
  }

  std::optional<bool> check(int32_t token) {
    // Held across the read so that concurrent checks of one token report a
    // change once.
    std::lock_guard lock(mu_);
    auto it = entries_.find(token);
    if (it == entries_.end()) return std::nullopt;
    const uint64_t generation = ReadCounter(it->second.file);
    const bool changed = it->second.lastSeen != generation;
    it->second.lastSeen = generation;
    return changed;
  }

  bool cancel(int32_t token) {
    std::lock_guard lock(mu_);
    return entries_.erase(token) == 1;
  }

 private:
  struct Entry {
    std::string file;
    std::optional<uint64_t> lastSeen;  // absent until the first check
  };
  std::mutex mu_;
  int32_t next_ = 1;
  std::unordered_map<int32_t, Entry> entries_;
};

}  // namespace

std::string FileNameForName(std::string_view name) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(name.size());
  for (size_t i = 0; i < name.size(); ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                       (c >= '0' && c <= '9') || c == '_' || c == '-' || (c == '.' && i > 0);
    if (plain) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  // The empty name still needs a file of its own.
  if (out.empty()) out = "%";
  if (out.size() > 200) {
    uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (unsigned char c : name) hash = (hash ^ c) * 1099511628211ull;
    out.resize(180);
    out.push_back('~');
    for (int shift = 60; shift >= 0; shift -= 4) out.push_back(kHex[(hash >> shift) & 15]);
  }
  return out;
}

bool Post(std::string_view name) {
  Counter* counter = CounterFiles::Shared().counterFor(FileNameForName(name));
  if (!counter) return false;
  bool written;
  int error;
  {
    CounterLock lock(*counter, LOCK_EX);
    written = lock.write(lock.read() + 1);
    error = errno;
  }
  if (!written) KXLOG(3, "Cannot post notification %s: %s", name, std::strerror(error));
  return written;
}

uint64_t Generation(std::string_view name) { return ReadCounter(FileNameForName(name)); }

std::shared_ptr<Observation> AddObserver(std::string name, std::shared_ptr<Queue> queue,
                                         Callback callback, const void* owner) {
  std::string file = FileNameForName(name);
  auto observation = std::make_shared<Observation>(std::move(name), std::move(file),
                                                   std::move(queue), std::move(callback), owner);
  Observers::Shared().add(observation);
  return observation;
}

void RemoveObserver(const std::shared_ptr<Observation>& observation) {
  if (observation) Observers::Shared().remove(observation);
}

void RemoveEveryObserver(const void* owner) { Observers::Shared().removeOwner(owner); }

int32_t RegisterCheck(std::string name) {
  return Tokens::Shared().add(FileNameForName(name));
}

std::optional<bool> Check(int32_t token) { return Tokens::Shared().check(token); }

bool Cancel(int32_t token) { return Tokens::Shared().cancel(token); }

}  // namespace kx::notify
