#include "searchd/result_cache.h"

#include <atomic>

namespace kx::searchd {
namespace {

std::atomic<uint64_t> gGeneration{0};

}  // namespace

uint64_t IndexGeneration() { return gGeneration.load(std::memory_order_acquire); }
void BumpIndexGeneration() { gGeneration.fetch_add(1, std::memory_order_acq_rel); }

std::string ResultCache::Key(const QueryPlan& plan, const std::set<uint32_t>& domains,
                             const SearchRequest& request) {
  std::string key = plan.prefix + '\x1e' + plan.match + '\x1f' + std::to_string(request.limit) + '\x1f';
  for (uint32_t domain : domains) key += std::to_string(domain) + ',';
  for (const std::string& bundle : request.excludedBundles) key += '\x1f' + bundle;
  return key;
}

Index::DomainHits ResultCache::search(Index& index, const QueryPlan& plan,
                                      const std::set<uint32_t>& domains, const SearchRequest& request) {
  const std::string key = Key(plan, domains, request);
  // Read before searching: a write that commits during the search makes the
  // stored answer stale at once instead of never.
  const uint64_t generation = IndexGeneration();
  {
    std::lock_guard lock(mu_);
    auto it = entries_.find(key);
    if (it != entries_.end() && it->second.generation == generation) {
      ages_.splice(ages_.begin(), ages_, it->second.age);
      ++hits_;
      return it->second.hits;
    }
  }
  Index::DomainHits hits = index.searchDomains(plan, domains, request);
  std::lock_guard lock(mu_);
  auto it = entries_.find(key);
  if (it != entries_.end()) {
    ages_.erase(it->second.age);
    entries_.erase(it);
  }
  ages_.push_front(key);
  entries_.emplace(key, Entry{generation, hits, ages_.begin()});
  if (entries_.size() > capacity_) {
    entries_.erase(ages_.back());
    ages_.pop_back();
  }
  return hits;
}

}  // namespace kx::searchd
