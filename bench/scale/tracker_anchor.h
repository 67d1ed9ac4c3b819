// The same generated corpus in Tracker 3, in this process: a private store
// with the nepomuk ontology, one nfo:Document per item (title, keywords and
// body in the properties Tracker indexes for full text, with its own weights
// 10 / 5 / 2; the domain in nie:generator), queried with fts:match "<prefix>*"
// per domain, best fts:rank first, the same per-domain limit as ours.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "searchd/item.h"

namespace kx::bench {

class TrackerAnchor {
 public:
  // Opens a new store under `directory`; null (with a line on stderr) when
  // Tracker refuses.
  static std::unique_ptr<TrackerAnchor> Create(const std::string& directory);
  ~TrackerAnchor();

  // Inserts the items as one update per 500; false on an error.
  bool insert(const std::vector<kx::searchd::Item>& items);
  // The identifiers of the best `limit` items of each domain for `prefix`,
  // in domain order; nullopt on an error.
  std::optional<std::vector<std::string>> search(const std::string& prefix, const std::vector<uint32_t>& domains,
                                                 int limit);

 private:
  struct State;
  explicit TrackerAnchor(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace kx::bench
