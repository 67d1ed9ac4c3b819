#include "searchd/indexer.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <tuple>
#include <map>
#include <set>

#include "kx/log.h"
#include "searchd/result_cache.h"

namespace kx::searchd {
namespace {

namespace fs = std::filesystem;

// Files are committed in groups: one transaction per file would spend the
// build's time writing small FTS segments, one for everything would hold the
// write lock for the whole build and keep readers on a stale index.
constexpr size_t kFilesPerTransaction = 2048;

struct Candidate {
  const Source* source;
  std::string path;
  int64_t stamp;
};
using KnownStamps = std::map<std::string, std::map<std::string, int64_t>>;  // source -> path -> stamp

// Nanoseconds of the last modification, mixed with the size so that a
// rewrite within the clock's resolution still counts as a change, and with
// the inode so that a file renamed over another (a safe save keeping the
// modification time) does too.
std::optional<int64_t> Stamp(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  const uint64_t inode = static_cast<uint64_t>(st.st_ino) * 0x9E3779B97F4A7C15u;
  return (static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec) ^
         (static_cast<int64_t>(st.st_size) << 1) ^ static_cast<int64_t>(inode);
}

// True when `path` is `dir` or lies below it.
bool IsUnder(const std::string& path, const std::string& dir) {
  return path.compare(0, dir.size(), dir) == 0 && (path.size() == dir.size() || path[dir.size()] == '/');
}

// True when an earlier directory of `source` than the `index`-th holds the
// same relative path: the earlier one wins (a user's desktop entry hides the
// system's).
bool Shadowed(const Source& source, const std::vector<std::string>& dirs, size_t index,
              const std::string& relative) {
  for (size_t i = 0; i < index; ++i) {
    const std::string other = dirs[i] + relative;
    if (source.accepts(other) && Stamp(other)) return true;
  }
  return false;
}

// Every accepted file of `source` at or below `start`, which lies in its
// `index`-th directory.
void EnumerateFrom(const Source& source, const std::vector<std::string>& dirs, size_t index,
                   const std::string& start, std::vector<Candidate>& out) {
  const std::string& dir = dirs[index];
  auto consider = [&](const std::string& path) {
    if (!source.accepts(path) || Shadowed(source, dirs, index, path.substr(dir.size()))) return;
    if (std::optional<int64_t> stamp = Stamp(path)) out.push_back({&source, path, *stamp});
  };
  std::error_code ec;
  if (!fs::is_directory(start, ec)) return consider(start);
  fs::recursive_directory_iterator it(start, fs::directory_options::skip_permission_denied, ec);
  for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) consider(it->path().string());
}

// Reads the candidates whose stamp differs from the known one and removes
// the known files that are no candidate.
IndexerStats Apply(Index& index, const std::vector<Candidate>& candidates, KnownStamps& known,
                   const Indexer::Progress& progress) {
  IndexerStats stats;
  stats.filesSeen = candidates.size();

  std::optional<Index::Batch> transaction;
  size_t pending = 0;
  auto flush = [&] {
    if (transaction) transaction->commit();
    transaction.reset();
    pending = 0;
  };
  size_t done = 0;
  for (const Candidate& c : candidates) {
    std::map<std::string, int64_t>& stamps = known[c.source->name()];
    auto previous = stamps.find(c.path);
    const bool unchanged = previous != stamps.end() && previous->second == c.stamp;
    if (previous != stamps.end()) stamps.erase(previous);
    if (progress && ++done % 64 == 0) progress(done, candidates.size());
    if (unchanged) continue;

    ParseResult parsed = c.source->load(c.path);
    ++stats.filesRead;
    if (!parsed.ok()) {
      ++stats.filesSkipped;
      KXLOG(4, "kx-searchd: skipped %s: %s", c.path, parsed.error);
      parsed.items.clear();
    } else if (!parsed.warning.empty()) {
      KXLOG(4, "kx-searchd: %s: %s", c.path, parsed.warning);
    }
    if (!transaction) transaction.emplace(index);
    index.replaceFile(c.source->name(), c.path, c.stamp, parsed.items);
    stats.items += parsed.items.size();
    if (++pending == kFilesPerTransaction) flush();
  }
  for (const auto& [source, stamps] : known) {
    for (const auto& [path, stamp] : stamps) {
      if (!transaction) transaction.emplace(index);
      index.removeFile(path);
      ++stats.filesRemoved;
    }
  }
  flush();
  if (stats.filesRead > 0 || stats.filesRemoved > 0) BumpIndexGeneration();
  if (progress) progress(candidates.size(), candidates.size());
  return stats;
}

}  // namespace

IndexerStats Indexer::update(const Progress& progress) {
  std::vector<Candidate> candidates;
  KnownStamps known;
  for (const auto& source : sources_) {
    const std::vector<std::string> dirs = source->directories();
    for (size_t i = 0; i < dirs.size(); ++i) EnumerateFrom(*source, dirs, i, dirs[i], candidates);
    known[source->name()] = index_.fileStamps(source->name());
  }
  return Apply(index_, candidates, known, progress);
}

std::vector<std::string> Indexer::directories() const {
  std::vector<std::string> all;
  for (const auto& source : sources_)
    for (std::string& dir : source->directories()) all.push_back(std::move(dir));
  return all;
}

IndexerStats Indexer::update(const std::set<std::string>& changed) {
  std::vector<Candidate> candidates;
  KnownStamps known;
  for (const auto& source : sources_) {
    const std::vector<std::string> dirs = source->directories();
    // A change below one directory may uncover or hide the same relative
    // path below the others.
    std::set<std::string> relatives;
    for (const std::string& path : changed) {
      for (const std::string& dir : dirs) {
        if (IsUnder(path, dir)) relatives.insert(path.substr(dir.size()));
        else if (IsUnder(dir, path)) relatives.insert("");  // above the root: all of it
      }
    }
    std::map<std::string, int64_t>& stamps = known[source->name()];
    for (const std::string& relative : relatives) {
      for (size_t i = 0; i < dirs.size(); ++i) {
        EnumerateFrom(*source, dirs, i, dirs[i] + relative, candidates);
        stamps.merge(index_.fileStampsUnder(source->name(), dirs[i] + relative));
      }
    }
  }
  // Changed paths may lie below one another: read each file once.
  auto byPath = [](const Candidate& a, const Candidate& b) {
    return std::tie(a.source, a.path) < std::tie(b.source, b.path);
  };
  auto samePath = [](const Candidate& a, const Candidate& b) { return a.source == b.source && a.path == b.path; };
  std::sort(candidates.begin(), candidates.end(), byPath);
  candidates.erase(std::unique(candidates.begin(), candidates.end(), samePath), candidates.end());
  return Apply(index_, candidates, known, {});
}

}  // namespace kx::searchd
