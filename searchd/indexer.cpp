#include "searchd/indexer.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
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

// Nanoseconds of the last modification, mixed with the size so that a
// rewrite within the clock's resolution still counts as a change.
std::optional<int64_t> Stamp(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  return (static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec) ^
         (static_cast<int64_t>(st.st_size) << 1);
}

// Every accepted file of `source`; a path relative to its directory that an
// earlier directory already provided is shadowed by it.
void Enumerate(const Source& source, std::vector<Candidate>& out) {
  std::set<std::string> relatives;
  for (const std::string& dir : source.directories()) {
    std::error_code ec;
    fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      const std::string path = it->path().string();
      if (!source.accepts(path)) continue;
      if (!relatives.insert(path.substr(dir.size())).second) continue;
      if (std::optional<int64_t> stamp = Stamp(path)) out.push_back({&source, path, *stamp});
    }
  }
}

std::optional<std::string> ReadFile(const std::string& path, std::string* why) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *why = "cannot open";
    return std::nullopt;
  }
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size < 0 || static_cast<size_t>(size) > kMaxSourceFileBytes) {
    *why = "too large";
    return std::nullopt;
  }
  std::string content(static_cast<size_t>(size), '\0');
  in.seekg(0);
  if (!in.read(content.data(), size)) {
    *why = "cannot read";
    return std::nullopt;
  }
  return content;
}

}  // namespace

IndexerStats Indexer::update(const Progress& progress) {
  IndexerStats stats;
  std::vector<Candidate> candidates;
  std::map<std::string, std::map<std::string, int64_t>> known;  // source -> path -> stamp
  for (const auto& source : sources_) {
    Enumerate(*source, candidates);
    known[source->name()] = index_.fileStamps(source->name());
  }
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

    std::string why;
    std::optional<std::string> content = ReadFile(c.path, &why);
    ParseResult parsed = content ? c.source->parse(c.path, *content) : ParseResult::Failure(why);
    ++stats.filesRead;
    if (!parsed.ok()) {
      ++stats.filesSkipped;
      KXLOG(4, "kx-searchd: skipped %s: %s", c.path, parsed.error);
      parsed.items.clear();
    }
    if (!transaction) transaction.emplace(index_);
    index_.replaceFile(c.source->name(), c.path, c.stamp, parsed.items);
    stats.items += parsed.items.size();
    if (++pending == kFilesPerTransaction) flush();
  }
  for (const auto& [source, stamps] : known) {
    for (const auto& [path, stamp] : stamps) {
      if (!transaction) transaction.emplace(index_);
      index_.removeFile(path);
      ++stats.filesRemoved;
    }
  }
  flush();
  BumpIndexGeneration();
  if (progress) progress(candidates.size(), candidates.size());
  return stats;
}

}  // namespace kx::searchd
