// Remembers the index's answers. Ranking up to a thousand full-text
// candidates costs about a millisecond, while people type the same few
// prefixes over and over. An
// answer is reused only while the index is unchanged: every committed write
// moves the process-wide index generation on, and an entry of an older
// generation is a miss. The answers are therefore exactly what the rule
// computes, only sooner.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "searchd/index.h"

namespace kx::searchd {

// Moves on after every committed change of the index made by this process.
uint64_t IndexGeneration();
void BumpIndexGeneration();

class ResultCache {
 public:
  explicit ResultCache(size_t capacity) : capacity_(capacity) {}

  // `search` on a miss, the remembered answer on a hit. Thread-safe; the
  // search itself runs outside the lock.
  Index::DomainHits search(Index& index, const QueryPlan& plan, const std::set<uint32_t>& domains,
                           const SearchRequest& request);

  size_t hits() const { return hits_; }

 private:
  struct Entry {
    uint64_t generation;
    Index::DomainHits hits;
    std::list<std::string>::iterator age;
  };
  static std::string Key(const QueryPlan& plan, const std::set<uint32_t>& domains,
                         const SearchRequest& request);

  const size_t capacity_;
  std::mutex mu_;
  std::list<std::string> ages_;                     // most recent first; guarded by mu_
  std::unordered_map<std::string, Entry> entries_;  // guarded by mu_
  size_t hits_ = 0;                                 // guarded by mu_
};

}  // namespace kx::searchd
