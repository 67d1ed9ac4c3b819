#include "model/result_set.h"

#include <bit>

#include "kx/exception.h"
#include "kx/format.h"
#include "kx/KXSearchResult.h"

namespace kx {

namespace {

[[noreturn]] void RaiseRange(size_t index, size_t count) {
  throw Exception("NSRangeException",
                  Format("index %zu beyond bounds [0 .. %zu] of the result set", index, count));
}

// The members match: the same object, or equal by the record's equality.
bool Matches(const KXSearchResult& member, const KXSearchResult& candidate) {
  return &member == &candidate || member.isEqual(candidate);
}

}  // namespace

size_t ResultSet::find(const KXSearchResult& result, size_t hash) const {
  if (slots_.empty()) {
    for (size_t i = 0; i < entries_.size(); ++i) {
      if (entries_[i].hash == hash && Matches(*entries_[i].result, result)) return i;
    }
    return kNotFound;
  }
  const size_t mask = slots_.size() - 1;
  for (size_t s = hash & mask;; s = (s + 1) & mask) {
    uint32_t slot = slots_[s];
    if (slot == 0) return kNotFound;
    const Entry& e = entries_[slot - 1];
    if (e.hash == hash && Matches(*e.result, result)) return slot - 1;
  }
}

size_t ResultSet::indexOf(const KXSearchResult& result) const {
  return find(result, result.hash());
}

void ResultSet::indexEntry(size_t position) {
  const size_t mask = slots_.size() - 1;
  size_t s = entries_[position].hash & mask;
  while (slots_[s] != 0) s = (s + 1) & mask;
  slots_[s] = static_cast<uint32_t>(position + 1);
}

void ResultSet::rebuildIndex() {
  if (entries_.size() < kIndexThreshold) {
    slots_.clear();
    return;
  }
  // At least twice as many slots as entries keeps probe runs short and
  // guarantees an empty slot, which ends every probe.
  slots_.assign(std::bit_ceil(entries_.size() * 2), 0);
  for (size_t i = 0; i < entries_.size(); ++i) indexEntry(i);
}

bool ResultSet::add(std::shared_ptr<KXSearchResult> result) {
  const size_t h = result->hash();
  if (find(*result, h) != kNotFound) return false;
  entries_.push_back({std::move(result), h});
  if (slots_.empty() ? entries_.size() >= kIndexThreshold : entries_.size() * 2 > slots_.size()) {
    rebuildIndex();
  } else if (!slots_.empty()) {
    indexEntry(entries_.size() - 1);
  }
  return true;
}

bool ResultSet::insert(std::shared_ptr<KXSearchResult> result, size_t index) {
  if (index > entries_.size()) RaiseRange(index, entries_.size());
  if (index == entries_.size()) return add(std::move(result));
  const size_t h = result->hash();
  if (find(*result, h) != kNotFound) return false;
  entries_.insert(entries_.begin() + static_cast<ptrdiff_t>(index), {std::move(result), h});
  rebuildIndex();
  return true;
}

void ResultSet::removeAt(size_t index) {
  if (index >= entries_.size()) RaiseRange(index, entries_.size());
  entries_.erase(entries_.begin() + static_cast<ptrdiff_t>(index));
  rebuildIndex();
}

void ResultSet::clear() {
  entries_.clear();
  slots_.clear();
}

std::vector<std::shared_ptr<KXSearchResult>> ResultSet::array() const {
  std::vector<std::shared_ptr<KXSearchResult>> out;
  out.reserve(entries_.size());
  for (const Entry& e : entries_) out.push_back(e.result);
  return out;
}

bool ResultSet::isEqual(const ResultSet& other) const {
  if (entries_.size() != other.entries_.size()) return false;
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (!Matches(*entries_[i].result, *other.entries_[i].result)) return false;
  }
  return true;
}

}  // namespace kx
