// ResultSet: the insertion-ordered set of results behind a section.
//
// Membership works like a hash table keyed by the record's own hash() and
// isEqual(): a result is already present when a member with the same hash is
// the same object or isEqual to it. The two functions do not agree (results
// equal by externalIdentifier and bundleID may hash apart, and results that
// hash alike are rarely equal), and the set keeps that behaviour: equal
// results with different hashes are both kept.
//
// Invariants: entries_ holds the members in order with the hash each had
// when it was added (a member changed afterwards keeps its old hash, as in
// any hash table). Small sets are searched linearly; from kIndexThreshold
// members on, slots_ is an open-addressing index (linear probing, load at
// most one half) of entry positions + 1, rebuilt after an insertion or
// removal in the middle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

class KXSearchResult;

namespace kx {

class ResultSet {
 public:
  static constexpr size_t kNotFound = SIZE_MAX;

  size_t count() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  // The member at `index`; index < count().
  const std::shared_ptr<KXSearchResult>& at(size_t index) const { return entries_[index].result; }

  // Position of the member that `result` matches; kNotFound when none.
  size_t indexOf(const KXSearchResult& result) const;
  bool contains(const KXSearchResult& result) const { return indexOf(result) != kNotFound; }

  // Appends `result` unless it is present; true when it was added.
  bool add(std::shared_ptr<KXSearchResult> result);
  // Inserts `result` at `index` (<= count()) unless it is present.
  bool insert(std::shared_ptr<KXSearchResult> result, size_t index);
  // Removes the member at `index` (< count()).
  void removeAt(size_t index);
  void clear();

  // The members in order.
  std::vector<std::shared_ptr<KXSearchResult>> array() const;

  // Same count and, position by position, the same object or isEqual.
  bool isEqual(const ResultSet& other) const;
  // The count: any finer hash would break the rule that equal sets hash
  // alike, because equal results do not always hash alike.
  size_t hash() const { return entries_.size(); }

  static constexpr size_t kIndexThreshold = 16;

 private:
  struct Entry {
    std::shared_ptr<KXSearchResult> result;
    size_t hash;
  };

  size_t find(const KXSearchResult& result, size_t hash) const;
  void indexEntry(size_t position);
  void rebuildIndex();

  std::vector<Entry> entries_;
  std::vector<uint32_t> slots_;  // empty while the set is small
};

}  // namespace kx
