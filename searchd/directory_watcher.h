// Watches directory trees with inotify and hands over what changed in
// debounced batches.
//
// Every directory at or below a root is watched for files and folders
// created, written and closed, changed in their attributes (touch), removed
// and moved in or out; folders that appear are watched with everything
// below them, folders that go away are forgotten. A root that does not
// exist yet is looked for again every kMissingRootRetry and reported as
// changed once it appears.
//
// Debouncing. A batch is handed over once no event came for `quiet` (an
// editor's save, a copy of many files: one batch), but at the latest
// `maxDelay` after its first event, so a file written without pause does not
// hold back every other change. The paths of a batch are the files and
// folders named by its events, each once.
//
// Lost events. When the kernel's event queue overflows (IN_Q_OVERFLOW) the
// watcher starts over with a fresh inotify instance (so no watch is stale)
// and the next batch says `rescan`: everything must be looked at again.
//
// Threads. The watches are set up by the constructor; start() runs the
// handler on a thread of the watcher's own ("kx-searchd.watch"), which
// blocks in poll(2) between events. The destructor stops and joins it; the
// handler is never called after the destructor returns.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/files/file_id_service.h"

namespace kx::searchd {

inline constexpr std::chrono::milliseconds kMissingRootRetry{2000};

class DirectoryWatcher {
 public:
  struct Options {
    std::chrono::milliseconds quiet{100};
    std::chrono::milliseconds maxDelay{1000};
  };
  // `paths` are the changed files and folders; `rescan` is true when events
  // were lost and `paths` may be incomplete.
  using Handler = std::function<void(const std::set<std::string>& paths, bool rescan)>;

  DirectoryWatcher(std::vector<std::string> roots, Options options);
  ~DirectoryWatcher();
  DirectoryWatcher(const DirectoryWatcher&) = delete;
  DirectoryWatcher& operator=(const DirectoryWatcher&) = delete;

  // Starts handing over batches, including those of events that came since
  // construction. Once only.
  void start(Handler handler);
  // Stops the thread (waiting for a running handler); idempotent.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;

  void run();
  // Sets up a new inotify instance over every root.
  void watchRoots();
  void watchTree(const std::string& path);
  void forgetTree(const std::string& path);
  // Reads the pending events; false when the instance failed.
  bool readEvents();
  // Records an event of the batch being collected.
  void noteEvent();
  void noteChange(std::string path);
  // After lost events: new watches, and the next batch is a rescan.
  void startOver();
  int pollTimeoutMs() const;

  const std::vector<std::string> roots_;
  const Options options_;
  Handler handler_;
  FileDescriptor inotify_;
  FileDescriptor wake_;  // eventfd: the destructor asks the thread to stop
  std::map<int, std::string> directories_;  // watch descriptor -> path
  std::set<std::string> missingRoots_;
  Clock::time_point lastRootCheck_;
  // The batch being collected.
  std::set<std::string> changed_;
  bool rescan_ = false;
  Clock::time_point firstEvent_;
  Clock::time_point lastEvent_;
  std::thread thread_;
};

}  // namespace kx::searchd
