// kx-searchd on generated corpora: index build rate, query latency per
// prefix length and the daemon's resident memory.
//
//   searchd_bench [items ...]        (default 10000 100000)
//
// Per corpus size: the corpus is written straight into a fresh index
// (timed: the build rate), then kx-searchd is started on that index (no
// source directories, so it keeps the generated items) and queried over its
// socket with a raw message connection, the way the daemon connection does:
// "OpenQuery" out, then the time until the first non-empty "SearchResults"
// and until "SearchComplete" arrive, on CLOCK_MONOTONIC. Latencies include
// the socket hop both ways (some 20-40 µs), so they overstate the time spent
// in the daemon slightly. Finally the daemon's VmRSS.
//
// Corpus: bench/generated_corpus.h. Prefixes are taken from words drawn the
// same way as the corpus's, so common prefixes come up as often as they
// would be typed.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "platform/message/message_socket.h"
#include "platform/process/child_process.h"
#include "bench/daemon_bench_support.h"
#include "bench/generated_corpus.h"
#include "searchd/index.h"
#include "searchd/text.h"

namespace {

using kx::bench::Corpus;
using kx::bench::Now;
using kx::bench::PercentileOf;
using kx::searchd::Item;

constexpr int kQueriesPerLength = 400;
constexpr int kWarmUp = 50;

// Messages of the daemon, handed from the connection's queue to the
// benchmark thread.
class Inbox {
 public:
  void add(std::shared_ptr<KXDPQMessage> m, uint64_t at) {
    std::lock_guard lock(mu_);
    items_.push_back({std::move(m), at});
    cv_.notify_all();
  }
  // The next message, waiting at most 10 s.
  std::pair<std::shared_ptr<KXDPQMessage>, uint64_t> next() {
    std::unique_lock lock(mu_);
    if (!cv_.wait_for(lock, std::chrono::seconds(10), [&] { return !items_.empty(); })) return {};
    auto item = std::move(items_.front());
    items_.erase(items_.begin());
    return item;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::pair<std::shared_ptr<KXDPQMessage>, uint64_t>> items_;
};

void Run(int items, const std::string& scratch) {
  const std::string indexDir = scratch + "/index-" + std::to_string(items);
  std::filesystem::remove_all(indexDir);
  std::filesystem::create_directories(indexDir);
  Corpus corpus;
  std::vector<Item> generated;
  for (int i = 0; i < items; ++i) generated.push_back(corpus.item(i));
  const kx::bench::BuildTime build = kx::bench::BuildIndex(indexDir + "/index.db", generated);
  std::printf("items %d: build %.2f s wall, %.2f s CPU: %.0f items/s wall, %.0f items/s CPU; index %.1f MiB\n",
              items, build.wallSeconds, build.cpuSeconds, items / build.wallSeconds, items / build.cpuSeconds,
              static_cast<double>(std::filesystem::file_size(indexDir + "/index.db")) / 1048576.0);

  const std::string service = "searchd-bench-" + std::to_string(getpid()) + "-" + std::to_string(items);
  std::filesystem::create_directories(scratch + "/empty");
  std::optional<kx::ChildProcess> daemon = kx::bench::StartSearchd(KX_SEARCHD, service, indexDir, scratch + "/empty");

  auto queue = kx::Queue::Create("bench.client");
  auto inbox = std::make_shared<Inbox>();
  std::shared_ptr<KXDPQConnection> connection;
  queue->sync([&] {
    connection = KXDPQConnection::initWithServiceName(service, queue);
    connection->setMessageHandler([inbox](const std::shared_ptr<KXDPQMessage>& m) { inbox->add(m, Now()); });
  });

  uint32_t qid = 0;
  std::printf("| items | prefix length | first batch p50 | p99 | complete p50 | p99 | queries with results |\n");
  std::printf("| --- | --- | --- | --- | --- | --- | --- |\n");
  for (size_t length = 1; length <= 5; ++length) {
    std::vector<double> first, complete;
    int withResults = 0;
    for (int q = 0; q < kWarmUp + kQueriesPerLength; ++q) {
      const std::string prefix = kx::searchd::CodePointPrefix(corpus.word(), length);
      auto open = KXDPQMessage::initWithName("OpenQuery");
      ++qid;
      open->setInfo(kx::MakeDictionary(
          {{"QID", kx::Number::UInt32(qid)}, {"QS", prefix},
           {"DA", kx::Array{kx::Number::Int32(2), kx::Number::Int32(4), kx::Number::Int32(5), kx::Number::Int32(19)}},
           {"QC", kx::Number::Int64(13)}}));
      const uint64_t sent = Now();
      connection->sendMessage(open);
      uint64_t firstAt = 0;
      for (;;) {
        auto [message, at] = inbox->next();
        if (!message) {
          std::fprintf(stderr, "no answer for %s\n", prefix.c_str());
          return;
        }
        const kx::Number* id = message->info()["QID"].number();
        if (!id || id->uint32Value() != qid) continue;
        if (message->name() == "SearchResults" && !firstAt) firstAt = at;
        if (message->name() == "SearchComplete" || message->name() == "SearchError") {
          if (q >= kWarmUp) {
            complete.push_back(static_cast<double>(at - sent) / 1e6);
            if (firstAt) first.push_back(static_cast<double>(firstAt - sent) / 1e6);
            withResults += firstAt != 0;
          }
          break;
        }
      }
    }
    std::printf("| %d | %zu | %.3f ms | %.3f ms | %.3f ms | %.3f ms | %d/%d |\n", items, length,
                PercentileOf(first, 0.5), PercentileOf(first, 0.99), PercentileOf(complete, 0.5),
                PercentileOf(complete, 0.99), withResults, kQueriesPerLength);
  }
  std::printf("items %d: daemon VmRSS %ld KiB\n\n", items, kx::bench::MemoryOf(daemon->pid()).rssKiB);
  connection->shutdown();
  kill(daemon->pid(), SIGTERM);
  daemon->wait(std::chrono::milliseconds(10000));
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
  if (sizes.empty()) sizes = {10000, 100000};
  char pattern[] = "/tmp/searchd-bench.XXXXXX";
  const std::string scratch = mkdtemp(pattern);
  for (int items : sizes) Run(items, scratch);
  std::filesystem::remove_all(scratch);
  return 0;
}
