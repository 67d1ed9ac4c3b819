#include "searchd/directory_watcher.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "kx/log.h"

namespace kx::searchd {
namespace {

namespace fs = std::filesystem;

// Everything that can change what a directory holds or what a file says.
// IN_MODIFY is left out: a file being written is read once it is closed,
// not at every write.
constexpr uint32_t kDirectoryEvents = IN_CREATE | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE | IN_MOVED_FROM |
                                      IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                      IN_EXCL_UNLINK;

bool IsUnder(const std::string& path, const std::string& dir) {
  return path.compare(0, dir.size(), dir) == 0 && (path.size() == dir.size() || path[dir.size()] == '/');
}

}  // namespace

DirectoryWatcher::DirectoryWatcher(std::vector<std::string> roots, Options options)
    : roots_(std::move(roots)), options_(options), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  watchRoots();
}

DirectoryWatcher::~DirectoryWatcher() { stop(); }

void DirectoryWatcher::stop() {
  if (!thread_.joinable()) return;
  const uint64_t one = 1;
  while (write(wake_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  thread_.join();
}

void DirectoryWatcher::start(Handler handler) {
  handler_ = std::move(handler);
  thread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "kx-searchd.watch");
    run();
  });
}

void DirectoryWatcher::watchRoots() {
  inotify_ = FileDescriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!inotify_.valid()) KXLOG(3, "kx-searchd: cannot watch for changes: %s", std::string(std::strerror(errno)));
  directories_.clear();
  missingRoots_.clear();
  lastRootCheck_ = Clock::now();
  for (const std::string& root : roots_) {
    std::error_code ec;
    if (fs::is_directory(root, ec)) {
      watchTree(root);
    } else {
      missingRoots_.insert(root);
    }
  }
}

void DirectoryWatcher::watchTree(const std::string& path) {
  if (!inotify_.valid()) return;
  auto watch = [this](const std::string& dir) {
    const int wd = inotify_add_watch(inotify_.get(), dir.c_str(), kDirectoryEvents);
    if (wd >= 0) {
      directories_[wd] = dir;
    } else if (errno == ENOSPC) {
      KXLOG(4, "kx-searchd: inotify watch limit reached, %s not watched", dir);
    }
  };
  watch(path);
  std::error_code ec;
  fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, ec);
  for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    std::error_code typeError;
    if (it->is_directory(typeError) && !it->is_symlink(typeError)) watch(it->path().string());
  }
}

void DirectoryWatcher::forgetTree(const std::string& path) {
  for (auto it = directories_.begin(); it != directories_.end();) {
    if (!IsUnder(it->second, path)) {
      ++it;
      continue;
    }
    inotify_rm_watch(inotify_.get(), it->first);
    it = directories_.erase(it);
  }
}

void DirectoryWatcher::noteEvent() {
  const Clock::time_point now = Clock::now();
  if (changed_.empty() && !rescan_) firstEvent_ = now;
  lastEvent_ = now;
}

void DirectoryWatcher::noteChange(std::string path) {
  noteEvent();
  changed_.insert(std::move(path));
}

void DirectoryWatcher::startOver() {
  watchRoots();
  noteEvent();
  changed_.clear();  // the rescan covers them
  rescan_ = true;
}

bool DirectoryWatcher::readEvents() {
  alignas(inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t length = read(inotify_.get(), buffer, sizeof buffer);
    if (length < 0) return errno == EAGAIN || errno == EINTR;
    if (length == 0) return false;
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if (event->mask & IN_Q_OVERFLOW) {
        KXLOG(4, "kx-searchd: change events lost, looking at everything again");
        startOver();
        return true;  // the rest belongs to the old instance
      }
      auto dir = directories_.find(event->wd);
      if (dir == directories_.end()) continue;
      if (event->mask & IN_IGNORED) {
        directories_.erase(dir);
        continue;
      }
      if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
        // A folder moved away keeps its watch under its old name: forget it
        // (a root included; it is looked for again).
        const std::string path = dir->second;
        if (std::find(roots_.begin(), roots_.end(), path) != roots_.end()) missingRoots_.insert(path);
        forgetTree(path);
        noteChange(path);
        continue;
      }
      std::string path = dir->second;
      if (event->len > 0) path += "/" + std::string(event->name);
      if (event->mask & IN_ISDIR) {
        if (event->mask & (IN_MOVED_FROM | IN_DELETE)) forgetTree(path);
        // A new folder may have been filled before its watch was set: the
        // change of `path` covers everything below it.
        if (event->mask & (IN_CREATE | IN_MOVED_TO)) watchTree(path);
      }
      noteChange(std::move(path));
    }
  }
}

int DirectoryWatcher::pollTimeoutMs() const {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  const Clock::time_point now = Clock::now();
  std::optional<Clock::time_point> due;
  if (!changed_.empty() || rescan_) due = std::min(lastEvent_ + options_.quiet, firstEvent_ + options_.maxDelay);
  if (!missingRoots_.empty()) {
    const Clock::time_point retry = lastRootCheck_ + kMissingRootRetry;
    due = due ? std::min(*due, retry) : retry;
  }
  if (!due) return -1;
  // Rounded up: waking a millisecond early would only go round again.
  return static_cast<int>(std::max<int64_t>(0, duration_cast<milliseconds>(*due - now).count() + 1));
}

void DirectoryWatcher::run() {
  for (;;) {
    pollfd fds[2] = {{wake_.get(), POLLIN, 0}, {inotify_.get(), POLLIN, 0}};
    const int ready = poll(fds, inotify_.valid() ? 2 : 1, pollTimeoutMs());
    if (ready < 0 && errno != EINTR) {
      KXLOG(3, "kx-searchd: watching stopped: %s", std::string(std::strerror(errno)));
      return;
    }
    if (fds[0].revents) return;
    if (ready > 0 && fds[1].revents && !readEvents()) {
      KXLOG(3, "kx-searchd: change events unreadable, starting over");
      startOver();
    }
    const Clock::time_point now = Clock::now();
    if (!missingRoots_.empty() && now >= lastRootCheck_ + kMissingRootRetry) {
      lastRootCheck_ = now;
      for (auto it = missingRoots_.begin(); it != missingRoots_.end();) {
        std::error_code ec;
        if (!fs::is_directory(*it, ec)) {
          ++it;
          continue;
        }
        watchTree(*it);
        noteChange(*it);
        it = missingRoots_.erase(it);
      }
    }
    if ((changed_.empty() && !rescan_) ||
        (now < lastEvent_ + options_.quiet && now < firstEvent_ + options_.maxDelay))
      continue;
    const std::set<std::string> changed = std::move(changed_);
    const bool rescan = rescan_;
    changed_.clear();
    rescan_ = false;
    handler_(changed, rescan);
  }
}

}  // namespace kx::searchd
