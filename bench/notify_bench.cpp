// Cost and latency of system-wide named notifications: one post, and the
// time from a post to the observer's callback within one process and across
// two (a helper process echoes each post back under another name; the
// reported round trip covers two hops, so one hop is about half of it).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/process/child_process.h"
#include "platform/notify/notify.h"
#include "kx/queue.h"
#include "platform/services/statistics.h"

namespace {

// Counts callbacks; the benchmark thread waits for the next one.
class Arrivals {
 public:
  kx::notify::Callback callback() {
    return [this](const std::string&) {
      std::lock_guard lock(mu_);
      ++count_;
      cv_.notify_one();
    };
  }
  bool waitBeyond(uint64_t seen) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, std::chrono::seconds(10), [&] { return count_ > seen; });
  }
  uint64_t count() {
    std::lock_guard lock(mu_);
    return count_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  uint64_t count_ = 0;
};

// Posts `send`, waits for `receive`, and reports the median and 99th
// percentile of the intervals in microseconds.
void MeasureRoundTrips(benchmark::State& state, const std::string& send, Arrivals& arrivals) {
  std::vector<double> micros;
  for (auto _ : state) {
    const uint64_t before = arrivals.count();
    const uint64_t start = kx::MonotonicNanoseconds();
    kx::notify::Post(send);
    if (!arrivals.waitBeyond(before)) {
      state.SkipWithError("no callback within 10 s");
      return;
    }
    micros.push_back(static_cast<double>(kx::MonotonicNanoseconds() - start) / 1e3);
  }
  std::sort(micros.begin(), micros.end());
  state.counters["median_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

void BM_Post(benchmark::State& state) {
  for (auto _ : state) kx::notify::Post("com.orvex.bench.post");
}
BENCHMARK(BM_Post);

void BM_PostToCallbackInProcess(benchmark::State& state) {
  Arrivals arrivals;
  auto observation = kx::notify::AddObserver("com.orvex.bench.local",
                                             kx::Queue::Create("bench.observer"),
                                             arrivals.callback());
  MeasureRoundTrips(state, "com.orvex.bench.local", arrivals);
  kx::notify::RemoveObserver(observation);
}
BENCHMARK(BM_PostToCallbackInProcess)->UseRealTime();

#ifdef KX_NOTIFY_HELPER
void BM_RoundTripAcrossProcesses(benchmark::State& state) {
  const std::string ping = "com.orvex.bench.ping", pong = "com.orvex.bench.pong";
  Arrivals arrivals;
  auto observation =
      kx::notify::AddObserver(pong, kx::Queue::Create("bench.observer"), arrivals.callback());
  // The helper echoes until it is terminated when `helper` goes away.
  auto helper = kx::ChildProcess::Spawn(KX_NOTIFY_HELPER, {"echo", ping, pong, "1000000000"});
  if (!helper || !arrivals.waitBeyond(0)) {
    state.SkipWithError("the echo helper did not start");
    return;
  }
  MeasureRoundTrips(state, ping, arrivals);
  kx::notify::RemoveObserver(observation);
}
BENCHMARK(BM_RoundTripAcrossProcesses)->UseRealTime();
#endif

}  // namespace

// Notification counters land in a scratch directory removed on exit.
int main(int argc, char** argv) {
  std::string dir = (std::filesystem::temp_directory_path() / "kxnotifybench.XXXXXX").string();
  if (!mkdtemp(dir.data())) return 1;
  setenv("KX_NOTIFY_DIR", dir.c_str(), 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return 0;
}
