#include "searchd/live_updates.h"

#include "kx/log.h"

namespace kx::searchd {

LiveUpdates::LiveUpdates(Indexer& indexer, std::mutex& writerMutex, DirectoryWatcher::Options options)
    : indexer_(indexer), writerMutex_(writerMutex), watcher_(indexer.directories(), options) {}

void LiveUpdates::start(std::function<void()> indexed) {
  indexed_ = std::move(indexed);
  watcher_.start([this](const std::set<std::string>& paths, bool rescan) { changed(paths, rescan); });
}

void LiveUpdates::changed(const std::set<std::string>& paths, bool rescan) {
  IndexerStats stats;
  {
    std::lock_guard lock(writerMutex_);
    try {
      stats = rescan ? indexer_.update() : indexer_.update(paths);
    } catch (const std::exception& e) {
      // The next change tries again; a failed pass changed nothing.
      KXLOG(3, "kx-searchd: index update failed: %s", std::string(e.what()));
      return;
    }
  }
  KXLOG(7, "kx-searchd: %zu changed paths%s: %zu files read, %zu removed", paths.size(),
        std::string(rescan ? " (rescan)" : ""), stats.filesRead, stats.filesRemoved);
  if ((stats.filesRead > 0 || stats.filesRemoved > 0) && indexed_) indexed_();
}

}  // namespace kx::searchd
