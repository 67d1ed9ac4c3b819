// A flat hash table from string views to results for the de-duplication of
// one batch: open addressing with linear probing over one array of entries
// that keep the full hash, so a probe touches the key's bytes only when the
// hashes agree. Large batches (100,000 results) stay within a few cache
// misses per lookup, where node-based maps chase a pointer per entry.
//
// Keys are views: whatever they point into must outlive the table. A later
// insertion under an existing key replaces its value.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

class KXSearchResult;

namespace kx {

class AddressTable {
 public:
  // Sizes the table for `count` keys (load at most one half).
  explicit AddressTable(size_t count)
      : slots_(std::bit_ceil(std::max<size_t>(16, count * 2))), mask_(slots_.size() - 1) {}

  void insert(std::string_view key, const KXSearchResult* value) {
    const uint64_t hash = Hash(key);
    Slot* slot = probe(key, hash);
    if (!slot->value) {
      if ((used_ + 1) * 2 > slots_.size()) {
        grow();
        slot = probe(key, hash);
      }
      ++used_;
      slot->hash = hash;
      slot->key = key;
    }
    slot->value = value;
  }

  // Null when absent.
  const KXSearchResult* find(std::string_view key) const {
    return const_cast<AddressTable*>(this)->probe(key, Hash(key))->value;
  }

 private:
  struct Slot {
    uint64_t hash = 0;
    std::string_view key;
    const KXSearchResult* value = nullptr;  // null marks a free slot
  };

  static uint64_t Hash(std::string_view key) { return std::hash<std::string_view>()(key); }

  // The slot holding `key`, or the free slot where it belongs.
  Slot* probe(std::string_view key, uint64_t hash) {
    for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
      Slot& slot = slots_[i];
      if (!slot.value || (slot.hash == hash && slot.key == key)) return &slot;
    }
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    mask_ = slots_.size() - 1;
    for (const Slot& slot : old)
      if (slot.value) *probe(slot.key, slot.hash) = slot;
  }

  std::vector<Slot> slots_;
  size_t mask_;
  size_t used_ = 0;
};

}  // namespace kx
