// Documents in kx-searchd: how fast they are indexed, and how soon a file
// that is written is found.
//
//   documents_bench [documents] [samples]     (default 2000 100)
//
// Indexing: `documents` generated files under a scratch documents folder,
// four in five text files of 150 to 400 words (words of 3 to 10 letters from
// a seeded generator), one in five a copy of one of the sample PDFs; the
// daemon's indexer reads them into a fresh index, recording each in the
// file-identifier index (timed, wall and CPU). The anchor, in the same run:
// reading and parsing the same files (PDF text through poppler) without
// writing any index.
//
// Latency: kx-searchd runs over that folder; a new file holding a word
// found nowhere else is written and closed, then the word is queried every
// 5 ms over a raw message connection ("DA" = documents only: the daemon
// sends "SearchResults" only when something matched) until a batch comes.
// The time from the file's close to that batch is one sample (CLOCK_MONOTONIC);
// the polling adds up to 5 ms. The anchor, in the same run: the time from
// the close to this process's own inotify watch on the folder reporting it,
// the kernel's part of the delay.
#include <sys/inotify.h>
#include <poll.h>
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

#include "bench/bench_support.h"
#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "platform/files/file_id_service.h"
#include "platform/message/message_socket.h"
#include "platform/process/child_process.h"
#include "searchd/documents.h"
#include "searchd/indexer.h"

namespace {

namespace fs = std::filesystem;

uint64_t Clock(clockid_t clock) {
  timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}
uint64_t Now() { return Clock(CLOCK_MONOTONIC); }
uint64_t CpuNow() { return Clock(CLOCK_PROCESS_CPUTIME_ID); }

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Writes the corpus; returns its size in bytes.
uint64_t WriteCorpus(const std::string& dir, int documents) {
  std::mt19937 random(20261123);
  std::vector<std::string> pdfs;
  for (const auto& entry : fs::recursive_directory_iterator(std::string(KX_EXAMPLES_DATA) + "/documents"))
    if (entry.path().extension() == ".pdf" && entry.path().filename() != "damaged-scan.pdf")
      pdfs.push_back(ReadAll(entry.path()));
  uint64_t bytes = 0;
  for (int i = 0; i < documents; ++i) {
    const std::string folder = dir + "/folder" + std::to_string(i % 20);
    fs::create_directories(folder);
    std::string content;
    if (i % 5 == 4) {
      content = pdfs[static_cast<size_t>(i) % pdfs.size()];
    } else {
      for (int w = 150 + static_cast<int>(random() % 251); w > 0; --w) {
        for (int n = 3 + static_cast<int>(random() % 8); n > 0; --n) content += static_cast<char>('a' + random() % 26);
        content += w % 12 == 0 ? '\n' : ' ';
      }
    }
    std::ofstream(folder + "/doc" + std::to_string(i) + (i % 5 == 4 ? ".pdf" : ".txt"), std::ios::binary) << content;
    bytes += content.size();
  }
  return bytes;
}

void MeasureIndexing(const std::string& scratch, int documents) {
  const std::string dir = scratch + "/data/documents";
  const double mib = static_cast<double>(WriteCorpus(dir, documents)) / 1048576.0;

  uint64_t start = Now(), cpuStart = CpuNow();
  size_t parsed = 0;
  for (const auto& entry : fs::recursive_directory_iterator(dir))
    if (entry.is_regular_file()) parsed += kx::searchd::ParseDocument(entry.path(), ReadAll(entry.path())).items.size();
  const double anchorWall = static_cast<double>(Now() - start) / 1e9;
  const double anchorCpu = static_cast<double>(CpuNow() - cpuStart) / 1e9;

  kx::searchd::SourceLocations locations;
  locations.documents = {dir};
  fs::create_directories(scratch + "/index");
  kx::searchd::Index index(scratch + "/index/index.db", false);
  kx::searchd::Indexer indexer(index, kx::searchd::MakeSources(locations));
  start = Now();
  cpuStart = CpuNow();
  const kx::searchd::IndexerStats stats = indexer.update();
  const double wall = static_cast<double>(Now() - start) / 1e9;
  const double cpu = static_cast<double>(CpuNow() - cpuStart) / 1e9;

  std::printf("corpus: %d documents, %.1f MiB\n", documents, mib);
  std::printf("| pass | documents | wall | CPU | documents/s (CPU) | MiB/s (CPU) |\n| --- | --- | --- | --- | --- | --- |\n");
  std::printf("| indexer (read, parse, identifiers, index) | %zu | %.2f s | %.2f s | %.0f | %.1f |\n", stats.items,
              wall, cpu, static_cast<double>(stats.items) / cpu, mib / cpu);
  std::printf("| anchor: read and parse only | %zu | %.2f s | %.2f s | %.0f | %.1f |\n\n", parsed, anchorWall,
              anchorCpu, static_cast<double>(parsed) / anchorCpu, mib / anchorCpu);
}

// Answers of the daemon by query id: whether a batch came, and whether it
// completed.
class Answers {
 public:
  void add(const std::shared_ptr<KXDPQMessage>& message) {
    const kx::Number* id = message->info()["QID"].number();
    if (!id) return;
    std::lock_guard lock(mu_);
    State& state = states_[id->uint32Value()];
    if (message->name() == "SearchResults") state.results = true;
    if (message->name() == "SearchComplete" || message->name() == "SearchError") state.done = true;
    cv_.notify_all();
  }
  // True when query `qid` got a batch; false when it completed without one
  // or nothing came within 10 s.
  bool found(uint32_t qid) {
    std::unique_lock lock(mu_);
    cv_.wait_for(lock, std::chrono::seconds(10), [&] { return states_[qid].done; });
    const bool results = states_[qid].results;
    states_.erase(qid);
    return results;
  }

 private:
  struct State {
    bool results = false;
    bool done = false;
  };
  std::mutex mu_;
  std::condition_variable cv_;
  std::map<uint32_t, State> states_;
};

void MeasureLatency(const std::string& scratch, int samples) {
  const std::string dir = scratch + "/data/documents/latency";
  fs::create_directories(dir);
  const std::string service = "documents-bench-" + std::to_string(getpid());
  std::optional<kx::ChildProcess> daemon = kx::ChildProcess::Spawn(
      KX_SEARCHD, {"--foreground", "--service", service, "--index", scratch + "/index", "--data-root",
                   scratch + "/data"});
  const std::string socket = *kx::ServiceSocketPath(service);
  for (int i = 0; i < 6000 && access(socket.c_str(), F_OK) != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));

  auto queue = kx::Queue::Create("bench.client");
  auto answers = std::make_shared<Answers>();
  std::shared_ptr<KXDPQConnection> connection;
  queue->sync([&] {
    connection = KXDPQConnection::initWithServiceName(service, queue);
    connection->setMessageHandler([answers](const std::shared_ptr<KXDPQMessage>& m) { answers->add(m); });
  });
  kx::FileDescriptor watch(inotify_init1(IN_CLOEXEC));
  inotify_add_watch(watch.get(), dir.c_str(), IN_CLOSE_WRITE);

  uint32_t qid = 0;
  auto query = [&](const std::string& text) {
    auto open = KXDPQMessage::initWithName("OpenQuery");
    open->setInfo(kx::MakeDictionary({{"QID", kx::Number::UInt32(++qid)},
                                      {"QS", text},
                                      {"DA", kx::Array{kx::Number::Int32(14)}},
                                      {"QC", kx::Number::Int64(13)}}));
    connection->sendMessage(open);
    return answers->found(qid);
  };
  std::vector<uint64_t> found, notified;
  int missed = 0;
  for (int i = 0; i < samples; ++i) {
    const std::string word = "zqxlatency" + std::to_string(i) + "w";
    const std::string path = dir + "/note" + std::to_string(i) + ".txt";
    { std::ofstream(path) << "A note written at run time: " << word << "\n"; }
    const uint64_t closed = Now();
    pollfd pfd{watch.get(), POLLIN, 0};
    if (poll(&pfd, 1, 10000) == 1) {
      notified.push_back(Now() - closed);
      alignas(inotify_event) char buffer[4096];
      [[maybe_unused]] const ssize_t n = read(watch.get(), buffer, sizeof buffer);
    }
    bool hit = false;
    while (!hit && Now() - closed < 10'000'000'000u) {
      hit = query(word);
      if (!hit) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (hit) {
      found.push_back(Now() - closed);
    } else {
      ++missed;
    }
    // Spread the samples over the debounce phase.
    std::this_thread::sleep_for(std::chrono::milliseconds(50 + i % 7 * 10));
  }
  auto ms = [](const std::vector<uint64_t>& v, double p) {
    return v.empty() ? NAN : kx::bench::Percentile(v, p) / 1000;
  };
  std::printf("| delay (%zu samples, %d missed) | p50 | p95 | p99 |\n| --- | --- | --- | --- |\n", found.size(), missed);
  std::printf("| written to found through the daemon | %.1f ms | %.1f ms | %.1f ms |\n", ms(found, 0.5),
              ms(found, 0.95), ms(found, 0.99));
  std::printf("| anchor: written to inotify event | %.3f ms | %.3f ms | %.3f ms |\n", ms(notified, 0.5),
              ms(notified, 0.95), ms(notified, 0.99));
  connection->shutdown();
  kill(daemon->pid(), SIGTERM);
  daemon->wait(std::chrono::milliseconds(10000));
}

}  // namespace

int main(int argc, char** argv) {
  const int documents = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int samples = argc > 2 ? std::atoi(argv[2]) : 100;
  char pattern[] = "/tmp/documents-bench.XXXXXX";
  const std::string scratch = mkdtemp(pattern);
  // The file-identifier index goes to the scratch tree, not the user's.
  setenv("HOME", scratch.c_str(), 1);
  unsetenv("XDG_DATA_HOME");
  MeasureIndexing(scratch, documents);
  MeasureLatency(scratch, samples);
  fs::remove_all(scratch);
  return 0;
}
