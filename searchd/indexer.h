// Brings the index up to date with the sources: files whose modification
// stamp changed are re-read, new files added, vanished files removed.
// Unreadable or malformed files are skipped with one level-4 log line each
// (their earlier items are dropped, their stamp is kept so they are not
// re-read until they change).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "searchd/index.h"
#include "searchd/sources.h"

namespace kx::searchd {

struct IndexerStats {
  size_t filesSeen = 0;
  size_t filesRead = 0;
  size_t filesSkipped = 0;  // malformed or unreadable
  size_t filesRemoved = 0;
  size_t items = 0;         // items written
};

class Indexer {
 public:
  // Called now and then with the files handled so far and the total.
  using Progress = std::function<void(size_t done, size_t total)>;

  Indexer(Index& index, std::vector<std::unique_ptr<Source>> sources)
      : index_(index), sources_(std::move(sources)) {}

  // Every file of every source (at start, and when the watcher lost track).
  IndexerStats update(const Progress& progress = {});
  // Only the files at or below the `changed` paths (files or folders that
  // were created, written, removed or moved), in every source whose
  // directories hold them.
  IndexerStats update(const std::set<std::string>& changed);

  // Every directory of every source.
  std::vector<std::string> directories() const;

 private:

  Index& index_;
  std::vector<std::unique_ptr<Source>> sources_;
};

}  // namespace kx::searchd
