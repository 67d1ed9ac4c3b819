// Search agent figures, with the test daemon (tests/test_daemon.cpp) under
// kx-launch on the same machine and the main queue drained the way an
// application drains it (poll on its eventfd, then drain).
//
//   latency      query entry -> delegate's update carrying one 100-result
//                batch; anchor: the same batch through a bare query token
//                (startQuery -> token delegate), measured in the same run
//   entry        the query entry's cost on the calling thread
//   keystrokes   100 keystrokes typed 5 ms apart: main-queue wake-ups and
//                posts per keystroke
//   addSections  one batch through de-duplication, grouping and merging:
//                1,000 / 10,000 / 100,000 results over 20 sections (a quarter
//                server results in 5 headers, 10% of those repeating an
//                on-device address, 2% without a header), and the same with
//                every server result headerless
//
//   agent_bench [queries]   (default 1000, after 100 to warm up)
//   agent_bench sections    (the addSections figures only)
#include <malloc.h>
#include <poll.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/result_dedupe.h"
#include "bench/bench_support.h"
#include "agent/section_merge.h"
#include "kx/KXSearchAgent.h"
#include "kx/KXSearchResultDeserializer.h"
#include "kx/main_loop.h"
#include "platform/message/message_socket.h"
#include "platform/process/child_process.h"
#include "platform/services/statistics.h"

namespace {

using kx::MonotonicNanoseconds;
using kx::bench::Report;

// CPU time of the calling thread: on a shared machine a run of 100 ms is
// preempted many times while one of 0.1 ms rarely is, so wall time would
// charge the larger batches for other processes' work.
uint64_t ThreadCPUNanoseconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Counts posts and stamps the last one carrying results.
class StampingAgentDelegate : public KXSearchAgentDelegate {
 public:
  bool respondsTo(Operation) const override { return true; }
  void searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>& agent) override {
    ++posts;
    size_t count = 0;
    for (const auto& section : agent->sections()) count += section->resultsCount();
    if (count == 100) lastFull = MonotonicNanoseconds();
  }
  std::atomic<int> posts{0};
  std::atomic<uint64_t> lastFull{0};
};

class StampingTokenDelegate : public KXDaemonQueryDelegate {
 public:
  void searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>&) override {}
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&,
                         const std::shared_ptr<KXSearchResultDeserializer>&) override {
    std::lock_guard lock(mu);
    delivered = MonotonicNanoseconds();
    cv.notify_all();
  }
  void searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>&) override {}
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&, const kx::Error&) override {}
  std::mutex mu;
  std::condition_variable cv;
  uint64_t delivered = 0;
};

// Drains the main queue like an application until `done` or 10 s; returns
// the number of wake-ups (fd readable).
template <class Done>
int RunMainUntil(Done done) {
  int wakeUps = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    pollfd fd = {kx::main_loop::fd(), POLLIN, 0};
    if (poll(&fd, 1, 1) == 1) {
      ++wakeUps;
      kx::main_loop::drain();
    }
  }
  return wakeUps;
}

int MeasureLatency(int queries) {
  constexpr int kWarmUp = 100;
  auto agent = KXSearchAgent::init();
  auto delegate = std::make_shared<StampingAgentDelegate>();
  agent->setDelegate(delegate);
  std::vector<uint64_t> latency, entry, entryCPU, anchor;
  for (int i = 0; i < kWarmUp + queries; ++i) {
    delegate->lastFull = 0;
    const std::string text = "results:4:100 q" + std::to_string(i);
    const uint64_t startCPU = ThreadCPUNanoseconds();
    const uint64_t start = MonotonicNanoseconds();
    agent->setQueryString(text, "en_US", 0, true);
    const uint64_t entered = MonotonicNanoseconds();
    const uint64_t enteredCPU = ThreadCPUNanoseconds();
    RunMainUntil([&] { return delegate->lastFull.load() != 0; });
    if (delegate->lastFull.load() == 0) {
      std::fprintf(stderr, "query %d: no update with 100 results\n", i);
      return 1;
    }
    if (i < kWarmUp) continue;
    latency.push_back(delegate->lastFull.load() - start);
    entry.push_back(entered - start);
    entryCPU.push_back(enteredCPU - startCPU);
  }

  // The anchor: the same daemon and batch without the agent.
  auto connection = KXDaemonConnection::sharedConnection();
  auto queue = kx::Queue::Create("bench.anchor");
  auto tokenDelegate = std::make_shared<StampingTokenDelegate>();
  for (int i = 0; i < kWarmUp + queries; ++i) {
    auto query = KXSearchQuery::initWithSearchString("results:4:100", "en_US", std::nullopt,
                                                     std::nullopt);
    std::shared_ptr<KXDaemonQueryToken> token;
    const uint64_t start = MonotonicNanoseconds();
    queue->sync([&] {
      token = connection->startQuery(query, kx::Value(), false, queue);
      token->setDelegate(tokenDelegate);
    });
    std::unique_lock lock(tokenDelegate->mu);
    if (!tokenDelegate->cv.wait_for(lock, std::chrono::seconds(10),
                                    [&] { return tokenDelegate->delivered != 0; }))
      return 1;
    const uint64_t delivered = std::exchange(tokenDelegate->delivered, 0);
    lock.unlock();
    connection->cancelQuery(token);
    if (i >= kWarmUp) anchor.push_back(delivered - start);
  }
  std::printf("%d queries of one 100-result batch each\n", queries);
  Report("agent entry->update", latency);
  Report("anchor token", anchor);
  Report("entry (caller thread)", entry);
  Report("entry, CPU time", entryCPU);
  return 0;
}

void MeasureKeystrokes() {
  auto agent = KXSearchAgent::init();
  auto delegate = std::make_shared<StampingAgentDelegate>();
  agent->setDelegate(delegate);
  // Settle: the creation-time work runs before counting starts.
  RunMainUntil([until = MonotonicNanoseconds() + 50'000'000] { return MonotonicNanoseconds() > until; });
  delegate->posts = 0;
  std::atomic<bool> typing{true};
  std::thread typist([&] {
    std::string text = "results:4:100 ";
    for (int i = 0; i < 100; ++i) {
      text += static_cast<char>('a' + i % 26);
      agent->setQueryString(text, "en_US", 0, true);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    typing = false;
  });
  const uint64_t start = MonotonicNanoseconds();
  int wakeUps = RunMainUntil([&] { return !typing.load(); });
  wakeUps += RunMainUntil([&, until = MonotonicNanoseconds() + 100'000'000] {
    return MonotonicNanoseconds() > until;
  });
  typist.join();
  std::printf("100 keystrokes 5 ms apart (%.0f ms): %d wake-ups (%.2f per keystroke), "
              "%d posts (%.2f per keystroke)\n",
              (MonotonicNanoseconds() - start) / 1e6, wakeUps, wakeUps / 100.0,
              delegate->posts.load(), delegate->posts.load() / 100.0);
}

// One batch of `total` results as the daemon would send it.
kx::SectionList MakeBatch(size_t total, bool headerless) {
  constexpr int kSections = 20, kServerSections = 5, kHeaders = 5;
  const size_t serverTotal = total / 4;
  const size_t localTotal = total - serverTotal;
  kx::SectionList batch;
  for (int s = 0; s < kSections - kServerSections; ++s) {
    auto section = std::make_shared<KXSearchResultSection>();
    section->setDomain(static_cast<uint32_t>(2 + s));
    section->setDisplayIdentifier("app" + std::to_string(s));
    for (size_t i = s; i < localTotal; i += kSections - kServerSections) {
      auto result = std::make_shared<KXSearchResult>();
      result->setTitle("local " + std::to_string(i));
      result->setUrl("https://www.site" + std::to_string(i) + ".org/");
      result->setIdentifier(i + 1);
      section->addResults(result);
    }
    batch.push_back(section);
  }
  for (int s = 0; s < kServerSections; ++s) {
    auto section = std::make_shared<KXSearchResultSection>();
    section->setDomain(16);
    for (size_t i = s; i < serverTotal; i += kServerSections) {
      auto result = std::make_shared<KXSearchResult>();
      result->setTitle("server " + std::to_string(i));
      result->setBundleID("com.server");
      result->setSearchResultDomain(16);
      result->setUrl(i % 10 == 0 ? "http://site" + std::to_string(i) + ".org"
                                 : "https://server.org/" + std::to_string(i));
      result->setValue(kx::Value("fbr" + std::to_string(i)), "fbr");
      if (!headerless && i % 50 != 0)
        result->setValue(kx::Value("H" + std::to_string(i % kHeaders)), "section_header");
      section->addResults(result);
    }
    batch.push_back(section);
  }
  return batch;
}

// Evicts the batch from the caches, so that every size starts cold: a
// freshly built 1,000-result batch would otherwise sit whole in L2 while a
// 100,000-result one cannot, and the ratio would measure the cache size.
void EvictCaches() {
  static std::vector<uint8_t> buffer(64 << 20);
  for (size_t i = 0; i < buffer.size(); i += 64) buffer[i] = static_cast<uint8_t>(buffer[i] + 1);
}

double TimeAddSections(size_t total, bool headerless) {
  constexpr int kRuns = 5;
  double best = 1e30;
  for (int run = 0; run < kRuns; ++run) {
    kx::SectionList batch = MakeBatch(total, headerless);
    kx::SectionList working;
    EvictCaches();
    const uint64_t start = ThreadCPUNanoseconds();
    kx::HandleOptionsForNewSections(working, batch);
    kx::AppendAndMergeSections(working, batch);
    best = std::min(best, (ThreadCPUNanoseconds() - start) / 1e6);
  }
  return best;
}

void MeasureAddSections() {
  for (bool headerless : {false, true}) {
    double first = 0;
    for (size_t total : {1'000u, 10'000u, 100'000u}) {
      const double ms = TimeAddSections(total, headerless);
      if (total == 1'000u) first = ms;
      std::printf("addSections %-10s %7zu results: %9.2f ms CPU (%.1fx the 1,000-result time)\n",
                  headerless ? "headerless" : "headers", total, ms, ms / first);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Keep freed memory in the process, as a long-running application's heap
  // is: otherwise every large batch pays first-touch page faults again.
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  MeasureAddSections();
  if (argc > 1 && std::string(argv[1]) == "sections") return 0;
#if !defined(KX_TEST_DAEMON) || !defined(KX_LAUNCH)
  (void)argc;
  (void)argv;
  std::fprintf(stderr, "the agent latency figures need the test daemon (build with tests)\n");
  return 0;
#else
  const int queries = argc > 1 ? std::atoi(argv[1]) : 1000;
  kx::bench::PrivateTestDaemon daemon(KX_LAUNCH, KX_TEST_DAEMON,
                                      std::string(KXDaemonConnection::kDefaultDaemonName),
                                      {"--per-query-scripts"});
  if (!daemon.running()) return 1;
  // The agents read the search preferences: an empty private store.
  setenv("XDG_CONFIG_HOME", (daemon.root() + "/config").c_str(), 1);

  const int status = MeasureLatency(queries);
  MeasureKeystrokes();
  return status;
#endif
}
