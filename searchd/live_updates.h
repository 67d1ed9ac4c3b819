// Keeps the index current while the daemon runs. A DirectoryWatcher over
// every source directory hands its debounced batches to the indexer, which
// re-reads only the changed files and folders (everything after lost
// events), under the writer's mutex. Each committed change moves the index
// generation on, so no cached answer of the server survives it; `indexed`
// then runs (the server re-orders its domains: a domain may have gained its
// first item).
//
// Threads: the watches are set up on construction, so changes made during
// the first indexing pass are not lost; start() hands them over on the
// watcher's own thread, where indexing runs.
#pragma once

#include <functional>
#include <mutex>

#include "searchd/directory_watcher.h"
#include "searchd/indexer.h"

namespace kx::searchd {

class LiveUpdates {
 public:
  LiveUpdates(Indexer& indexer, std::mutex& writerMutex, DirectoryWatcher::Options options = {});

  void start(std::function<void()> indexed);
  // Waits for a running update; none starts afterwards. Call before what
  // `indexed` uses goes away.
  void stop() { watcher_.stop(); }

 private:
  void changed(const std::set<std::string>& paths, bool rescan);

  Indexer& indexer_;
  std::mutex& writerMutex_;
  std::function<void()> indexed_;
  // Last: stopped (in its destructor) before the members its thread uses.
  DirectoryWatcher watcher_;
};

}  // namespace kx::searchd
