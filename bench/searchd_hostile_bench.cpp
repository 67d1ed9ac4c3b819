// kx-searchd answering a well-behaved client while another misbehaves.
//
//   searchd_hostile_bench [--queries N]     (default 1000 per scenario)
//
// kx-searchd runs over examples/data in a private directory tree. A raw
// message connection, the way the daemon connection talks, sends
// "OpenQuery" for prefixes of the sample data's words, one at a time, and
// takes the time until "SearchComplete" (CLOCK_MONOTONIC, socket hop both
// ways included). Scenarios, in one run so that they share the machine's
// load:
//   quiet       nobody else (the anchor)
//   flood       another client keeps 128 unclosed queries in flight
//   stalled     clients that never read flood queries until the daemon
//               gives them up, one after the other
//   oversized   another client sends "OpenQuery" with 10 MB texts
// Each scenario prints p50, p95, p99 and the worst answer.
#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "platform/message/message_socket.h"
#include "platform/process/child_process.h"

namespace {

using namespace std::chrono_literals;

uint64_t Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

std::shared_ptr<KXDPQMessage> OpenQuery(uint32_t qid, const std::string& text) {
  auto message = KXDPQMessage::initWithName("OpenQuery");
  message->setInfo(kx::MakeDictionary(
      {{"QID", kx::Number::UInt32(qid)}, {"QS", text},
       {"DA", kx::Array{kx::Number::UInt32(2), kx::Number::UInt32(4), kx::Number::UInt32(5), kx::Number::UInt32(19)}},
       {"QC", kx::Number::Int64(13)}}));
  return message;
}

// A raw client that counts the queries the daemon ended (completed or
// refused), highest query id first.
class RawClient {
 public:
  explicit RawClient(const std::string& service) : queue_(kx::Queue::Create("bench.raw")) {
    queue_->sync([&] {
      connection_ = KXDPQConnection::initWithServiceName(service, queue_);
      connection_->setMessageHandler([this](const std::shared_ptr<KXDPQMessage>& m) {
        const kx::Number* id = m->info()["QID"].number();
        if (!id || (m->name() != "SearchComplete" && m->name() != "SearchError")) return;
        std::lock_guard lock(mu_);
        ended_ = std::max(ended_, id->uint32Value());
        cv_.notify_all();
      });
      connection_->setDisconnectHandler([this] {
        std::lock_guard lock(mu_);
        gone_ = true;
        cv_.notify_all();
      });
    });
  }
  ~RawClient() {
    connection_->shutdown();
    queue_->sync([] {});
  }

  void send(const std::shared_ptr<KXDPQMessage>& message) { connection_->sendMessage(message); }
  // Waits until query `qid` ended or the connection went; false on time-out.
  bool waitEnded(uint32_t qid, std::chrono::milliseconds timeout = 10s) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, timeout, [&] { return ended_ >= qid || gone_; });
  }
  bool gone() {
    std::lock_guard lock(mu_);
    return gone_;
  }
  const std::shared_ptr<kx::Queue>& queue() const { return queue_; }

 private:
  std::shared_ptr<kx::Queue> queue_;
  std::shared_ptr<KXDPQConnection> connection_;
  std::mutex mu_;
  std::condition_variable cv_;
  uint32_t ended_ = 0;
  bool gone_ = false;
};

double Percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

// Runs `hostile` on a thread of its own until the measurement ends.
class Background {
 public:
  explicit Background(std::function<void(const std::atomic<bool>& stop)> work)
      : thread_([this, work = std::move(work)] { work(stop_); }) {}
  ~Background() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

void Measure(const char* scenario, const std::string& service, int queries) {
  static const char* kPrefixes[] = {"f", "fi", "fil", "mus", "lov", "e", "c", "cal", "not", "tri", "gra", "dis"};
  RawClient client(service);
  std::vector<double> ms;
  for (int i = 0; i < queries; ++i) {
    const uint32_t qid = static_cast<uint32_t>(i + 1);
    const uint64_t sent = Now();
    client.send(OpenQuery(qid, kPrefixes[i % std::size(kPrefixes)]));
    if (!client.waitEnded(qid)) {
      std::printf("| %s | no answer within 10 s | | | |\n", scenario);
      return;
    }
    ms.push_back(static_cast<double>(Now() - sent) / 1e6);
  }
  std::printf("| %s | %.2f ms | %.2f ms | %.2f ms | %.2f ms |\n", scenario, Percentile(ms, 0.5),
              Percentile(ms, 0.95), Percentile(ms, 0.99), *std::max_element(ms.begin(), ms.end()));
}

}  // namespace

int main(int argc, char** argv) {
  int queries = 1000;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], "--queries") == 0) queries = std::atoi(argv[i + 1]);
  signal(SIGPIPE, SIG_IGN);
  char pattern[] = "/tmp/searchd-hostile-bench.XXXXXX";
  const std::string root = mkdtemp(pattern);
  setenv("KX_SERVICE_DIR", (root + "/services").c_str(), 1);
  setenv("HOME", root.c_str(), 1);
  setenv("XDG_STATE_HOME", root.c_str(), 1);
  const std::string service = "searchd-hostile-bench";
  std::optional<kx::ChildProcess> daemon = kx::ChildProcess::Spawn(
      KX_SEARCHD, {"--foreground", "--service", service, "--index", root + "/index", "--data-root", KX_EXAMPLES_DATA});
  const std::string socket = *kx::ServiceSocketPath(service);
  for (int i = 0; i < 3000 && access(socket.c_str(), F_OK) != 0; ++i) std::this_thread::sleep_for(10ms);

  std::printf("| scenario | p50 | p95 | p99 | worst |\n| --- | --- | --- | --- | --- |\n");
  Measure("quiet (anchor)", service, queries);
  {
    Background flood([&](const std::atomic<bool>& stop) {
      RawClient hostile(service);
      for (uint32_t qid = 1; !stop && !hostile.gone(); ++qid) {
        if (qid > 128) hostile.waitEnded(qid - 128, 100ms);
        hostile.send(OpenQuery(qid, "e"));
      }
    });
    Measure("flood of unclosed queries", service, queries);
  }
  {
    Background stalled([&](const std::atomic<bool>& stop) {
      while (!stop) {
        RawClient hostile(service);
        std::promise<void> release;
        hostile.queue()->async([future = release.get_future().share()] { future.wait(); });
        for (uint32_t qid = 1; !stop && qid <= 5000; ++qid) {
          hostile.send(OpenQuery(qid, "e"));
          if (qid % 64 == 0) std::this_thread::sleep_for(1ms);
        }
        release.set_value();
      }
    });
    Measure("clients that stop reading", service, queries);
  }
  {
    Background oversized([&](const std::atomic<bool>& stop) {
      RawClient hostile(service);
      const std::string huge(10 << 20, 'a');
      for (uint32_t qid = 1; !stop && !hostile.gone(); ++qid) {
        hostile.send(OpenQuery(qid, huge));
        hostile.waitEnded(qid, 1s);
      }
    });
    Measure("10 MB texts", service, queries);
  }
  kill(daemon->pid(), SIGTERM);
  daemon->wait(10000ms);
  std::filesystem::remove_all(root);
  return 0;
}
