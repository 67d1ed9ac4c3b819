#include "platform/services/statistics.h"

#include <time.h>

#include <algorithm>

#include "platform/message/service_slot.h"

namespace kx {
namespace {

ServiceSlot<Statistics>& Slot() {
  static auto* slot = new ServiceSlot<Statistics>(
      [] { return std::shared_ptr<Statistics>(std::make_shared<InProcessStatistics>()); });
  return *slot;
}

}  // namespace

uint64_t MonotonicNanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

std::shared_ptr<Statistics> Statistics::Shared() { return Slot().get(); }

void Statistics::SetShared(std::shared_ptr<Statistics> statistics) {
  Slot().set(std::move(statistics));
}

void Statistics::pushTimeIntervalSince(std::string_view key, uint64_t startStamp) {
  const uint64_t now = MonotonicNanoseconds();
  // A stamp from the future (a caller's bug) counts as no time at all.
  pushTimeInterval(key, now > startStamp ? static_cast<double>(now - startStamp) / 1e9 : 0.0);
}

void InProcessStatistics::pushTimeInterval(std::string_view key, double seconds) {
  std::lock_guard lock(mu_);
  auto it = entries_.find(std::string(key));  // keys are few; lookups are not hot
  if (it == entries_.end()) it = entries_.emplace(std::string(key), Entry{}).first;
  Entry& entry = it->second;
  Distribution& d = entry.distribution;
  d.min = d.count == 0 ? seconds : std::min(d.min, seconds);
  d.max = d.count == 0 ? seconds : std::max(d.max, seconds);
  ++d.count;
  d.sum += seconds;
  if (d.samples.size() < kMaxSamples) {
    d.samples.push_back(seconds);
  } else {
    d.samples[entry.next] = seconds;
    entry.next = (entry.next + 1) % kMaxSamples;
  }
}

std::optional<InProcessStatistics::Distribution> InProcessStatistics::distribution(
    std::string_view key) const {
  std::lock_guard lock(mu_);
  auto it = entries_.find(std::string(key));
  if (it == entries_.end()) return std::nullopt;
  Distribution d = it->second.distribution;
  // Unroll the ring so callers see the samples oldest first.
  std::rotate(d.samples.begin(), d.samples.begin() + static_cast<ptrdiff_t>(it->second.next),
              d.samples.end());
  return d;
}

std::vector<std::string> InProcessStatistics::keys() const {
  std::lock_guard lock(mu_);
  std::vector<std::string> keys;
  keys.reserve(entries_.size());
  for (const auto& [key, entry] : entries_) keys.push_back(key);
  std::sort(keys.begin(), keys.end());
  return keys;
}

}  // namespace kx
