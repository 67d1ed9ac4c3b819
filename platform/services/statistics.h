// Aggregate statistics: time intervals pushed into named distributions.
//
// The default service keeps the distributions in this process, where tests
// and tools read them; an application can replace it (e.g. with one that
// forwards to its telemetry). Every method is safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kx {

// CLOCK_MONOTONIC in nanoseconds: the clock of every latency figure.
uint64_t MonotonicNanoseconds();

class Statistics {
 public:
  // The process's service: the default one unless replaced.
  static std::shared_ptr<Statistics> Shared();
  // Replaces the service; null restores a fresh default one.
  static void SetShared(std::shared_ptr<Statistics> statistics);

  virtual ~Statistics() = default;
  virtual void pushTimeInterval(std::string_view key, double seconds) = 0;
  // Pushes the time from `startStamp` (MonotonicNanoseconds) until now.
  void pushTimeIntervalSince(std::string_view key, uint64_t startStamp);
};

// The default service.
class InProcessStatistics final : public Statistics {
 public:
  struct Distribution {
    uint64_t count = 0;
    double sum = 0;
    double min = 0;
    double max = 0;
    // The most recent samples, oldest first; at most kMaxSamples.
    std::vector<double> samples;
  };
  static constexpr size_t kMaxSamples = 1024;

  void pushTimeInterval(std::string_view key, double seconds) override;
  // Absent when nothing was pushed under `key`.
  std::optional<Distribution> distribution(std::string_view key) const;
  std::vector<std::string> keys() const;

 private:
  struct Entry {
    Distribution distribution;
    size_t next = 0;  // ring position once `samples` is full
  };
  mutable std::mutex mu_;
  std::unordered_map<std::string, Entry> entries_;
};

}  // namespace kx
