// Query latency: from startQuery to the token's delegate receiving a batch of
// 100 results, with the test daemon (tests/test_daemon.cpp) under kx-launch
// on the same machine. Every query crosses the message service twice
// ("OpenQuery" out, "SearchResults" with its sealed region back) and the
// daemon builds and serialises its batch each time.
//
// Two figures per query, both on CLOCK_MONOTONIC:
//   delivered  startQuery called -> delegate called on its queue
//   decoded    the same, through reading all 100 results into a section
// A percentile distribution needs every sample, so this is a plain main
// rather than a Google Benchmark fixture.
//
//   query_latency_bench [queries]   (default 2000, after 100 to warm up)
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/bench_support.h"
#include "kx/KXDaemonConnection.h"
#include "kx/KXSearchResultSection.h"
#include "platform/process/child_process.h"
#include "platform/message/message_socket.h"
#include "kx/KXSearchResultDeserializer.h"

namespace {

uint64_t Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Stamps the first batch of each query and hands the stamps over.
class StampingDelegate : public KXDaemonQueryDelegate {
 public:
  void searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>&) override {}
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&,
                         const std::shared_ptr<KXSearchResultDeserializer>& results) override {
    const uint64_t delivered = Now();
    size_t count = 0;
    for (;;) {
      KXSearchResultSection section;
      if (!results->deserializeNextSection(&section)) break;
      count += section.resultsCount();
    }
    const uint64_t decoded = Now();
    std::lock_guard lock(mu_);
    delivered_ = delivered;
    decoded_ = decoded;
    count_ = count;
    cv_.notify_all();
  }
  void searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>&) override {}
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&, const kx::Error&) override {}

  // Waits for the batch; false after 10 seconds.
  bool wait(uint64_t* delivered, uint64_t* decoded, size_t* count) {
    std::unique_lock lock(mu_);
    if (!cv_.wait_for(lock, std::chrono::seconds(10), [&] { return delivered_ != 0; })) return false;
    *delivered = std::exchange(delivered_, 0);
    *decoded = decoded_;
    *count = count_;
    return true;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  uint64_t delivered_ = 0;
  uint64_t decoded_ = 0;
  size_t count_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
#if !defined(KX_TEST_DAEMON) || !defined(KX_LAUNCH)
  (void)argc;
  (void)argv;
  std::fprintf(stderr, "query_latency_bench needs the test daemon (build with tests)\n");
  return 0;
#else
  const int queries = argc > 1 ? std::atoi(argv[1]) : 2000;
  constexpr int kWarmUp = 100;

  const std::string service = "latency";
  kx::bench::PrivateTestDaemon daemon(KX_LAUNCH, KX_TEST_DAEMON, service);
  if (!daemon.running()) return 1;

  auto connection = KXDaemonConnection::initWithDaemonName(service);
  auto queue = kx::Queue::Create("bench.query");
  auto delegate = std::make_shared<StampingDelegate>();
  std::vector<uint64_t> delivered, decoded;
  for (int i = 0; i < kWarmUp + queries; ++i) {
    auto query = KXSearchQuery::initWithSearchString("results:2:100", "en_US", std::nullopt,
                                                     std::nullopt);
    std::shared_ptr<KXDaemonQueryToken> token;
    const uint64_t start = Now();
    queue->sync([&] {
      token = connection->startQuery(query, kx::Value(), false, queue);
      token->setDelegate(delegate);
    });
    uint64_t got = 0, read = 0;
    size_t count = 0;
    if (!delegate->wait(&got, &read, &count) || count != 100) {
      std::fprintf(stderr, "query %d: no batch of 100 results (%zu)\n", i, count);
      return 1;
    }
    connection->cancelQuery(token);
    if (i < kWarmUp) continue;
    delivered.push_back(got - start);
    decoded.push_back(read - start);
  }
  std::printf("%d queries of one 100-result batch each\n", queries);
  kx::bench::Report("delivered", delivered);
  kx::bench::Report("decoded", decoded);

  connection.reset();
  return 0;
#endif
}
