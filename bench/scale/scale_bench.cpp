// Search at scale, end to end: keystrokes typed into a search agent that
// queries kx-searchd (a separate process) over the daemon connection, on
// generated corpora (bench/generated_corpus.h), side by side with Tracker 3
// in this process and with a D-Bus method call carrying the same results.
//
//   scale_bench [--words N] [--svg FILE] [--no-tracker] [items ...]
//                                           (default: 20 words, 10000 items)
//   scale_bench --bus-peer ADDRESS INDEX    (the D-Bus anchor's server)
//
// Per corpus size:
//   build     the corpus written into a fresh index through Index::Batch, as
//             the daemon's indexer writes it (wall and CPU time, size on disk)
//   typing    N words of 10 letters taken from item titles, typed at one key
//             per 30 ms with 300 ms between words. A keystroke's latency runs
//             from the agent's query entry to the first post to the agent's
//             delegate whose results all match its text (each has a word
//             starting with it); a keystroke overtaken by the next before
//             such a post is a miss. The main queue is drained the way an
//             application does (poll on its descriptor, then drain), and its
//             wake-ups are counted per typed word.
//   daemon    VmRSS and VmHWM of kx-searchd after typing
//   tracker   the same items in Tracker (build time; each typed prefix as
//             fts:match "<prefix>*" per domain, best fts:rank first, 13 per
//             domain), timed per prefix length against our keystroke latency
//   transport each typed prefix through the daemon connection (query start to
//             completion) and through a D-Bus method call on a private
//             dbus-daemon answered from the same index by the same rules
#include <signal.h>
#include <poll.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <unordered_map>
#include <string>
#include <thread>
#include <vector>

#include "bench/daemon_bench_support.h"
#include "bench/generated_corpus.h"
#include "bench/private_bus.h"
#include "bench/scale/bus_search.h"
#include "bench/scale/latency_svg.h"
#include "bench/scale/tracker_anchor.h"
#include "kx/KXDaemonConnection.h"
#include "kx/KXDaemonQueryToken.h"
#include "kx/KXSearchAgent.h"
#include "kx/KXSearchQuery.h"
#include "kx/main_loop.h"
#include "platform/message/message_socket.h"
#include "platform/process/child_process.h"
#include "searchd/index.h"
#include "searchd/text.h"

namespace {

using kx::bench::CpuNow;
using kx::bench::Now;
using kx::bench::PercentileOf;
using kx::searchd::Item;

const std::vector<uint32_t> kDomains = {2, 4, 5, 19};
constexpr size_t kPerDomain = 13;
constexpr size_t kWordLetters = 10;
constexpr auto kKeyInterval = std::chrono::milliseconds(30);
constexpr auto kWordPause = std::chrono::milliseconds(300);

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

double MiB(uintmax_t bytes) { return static_cast<double>(bytes) / 1048576.0; }

struct Options {
  int words = 20;
  std::string svg;
  bool tracker = true;
  std::vector<int> sizes;
};

// Whether every item of `ids` has a word starting with `text`. The folded
// words of an item are kept once computed, so that checking a post costs
// the main queue little.
class MatchChecker {
 public:
  explicit MatchChecker(const std::vector<Item>& items) : items_(items) {}
  bool allMatch(const std::vector<std::string>& ids, const std::string& text) {
    const std::string prefix = kx::searchd::Fold(text);
    for (const std::string& id : ids) {
      const size_t i = id.size() > 1 && id[0] == 'g' ? std::strtoul(id.c_str() + 1, nullptr, 10) : items_.size();
      if (i >= items_.size()) return false;
      const std::vector<std::string>& words = wordsOf(i);
      if (std::none_of(words.begin(), words.end(),
                       [&](const std::string& w) { return w.compare(0, prefix.size(), prefix) == 0; }))
        return false;
    }
    return !ids.empty();
  }

 private:
  const std::vector<std::string>& wordsOf(size_t i) {
    auto [it, added] = words_.try_emplace(i);
    if (added) {
      const Item& item = items_[i];
      it->second = kx::searchd::Words(kx::searchd::Fold(item.title + " " + item.keywords + " " + item.body));
    }
    return it->second;
  }
  const std::vector<Item>& items_;
  std::unordered_map<size_t, std::vector<std::string>> words_;
};

// User and system CPU time of a process, in seconds.
double ProcessCpuSeconds(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string content((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // Fields after the command name, which may hold spaces: state is field 3,
  // utime and stime are fields 14 and 15.
  std::istringstream fields(content.substr(content.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int n = 3; n <= 15 && fields >> field; ++n)
    if (n >= 14) ticks += std::atof(field.c_str());
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Keystroke {
  std::string text;
  size_t letters;
  uint64_t at = 0;
  uint64_t firstPost = 0;
  bool missed = false;
};

// Stamps the first post that answers the keystroke being typed.
class TypingDelegate : public KXSearchAgentDelegate {
 public:
  explicit TypingDelegate(MatchChecker& checker) : checker_(checker) {}
  bool respondsTo(Operation) const override { return true; }
  void searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>& agent) override {
    const uint64_t now = Now();
    std::vector<std::string> ids;
    for (const auto& section : agent->sections())
      for (const auto& result : section->results())
        if (result->externalIdentifier()) ids.push_back(*result->externalIdentifier());
    std::lock_guard lock(mu);
    if (!current || current->firstPost) return;
    if (checker_.allMatch(ids, current->text)) current->firstPost = now;
  }
  std::mutex mu;
  Keystroke* current = nullptr;  // guarded by mu

 private:
  MatchChecker& checker_;
};

// Ten-letter words of item titles, drawn from random items.
std::vector<std::string> TypedWords(const std::vector<Item>& items, int count) {
  std::mt19937 random(77);
  std::vector<std::string> words;
  for (int attempts = 0; static_cast<int>(words.size()) < count && attempts < 1000000; ++attempts) {
    for (const std::string& w : kx::searchd::Words(items[random() % items.size()].title))
      if (kx::searchd::CodePointCount(w) >= kWordLetters) {
        words.push_back(kx::searchd::CodePointPrefix(w, kWordLetters));
        break;
      }
  }
  return words;
}

struct TypingResult {
  std::deque<Keystroke> keystrokes;
  double wakeUpsPerWord = 0;
};

TypingResult Type(const std::vector<std::string>& words, MatchChecker& checker) {
  TypingResult out;
  auto agent = KXSearchAgent::init();
  auto delegate = std::make_shared<TypingDelegate>(checker);
  agent->setDelegate(delegate);
  std::atomic<bool> typing{true};
  std::thread typist([&] {
    for (const std::string& word : words) {
      const auto start = std::chrono::steady_clock::now();
      for (size_t n = 1; n <= kWordLetters; ++n) {
        std::this_thread::sleep_until(start + (n - 1) * kKeyInterval);
        {
          std::lock_guard lock(delegate->mu);
          if (delegate->current && !delegate->current->firstPost) delegate->current->missed = true;
          out.keystrokes.push_back({kx::searchd::CodePointPrefix(word, n), n});
          delegate->current = &out.keystrokes.back();
          delegate->current->at = Now();
        }
        agent->setQueryString(out.keystrokes.back().text, "en_US", 0, true);
      }
      std::this_thread::sleep_until(start + (kWordLetters - 1) * kKeyInterval + kWordPause);
    }
    std::lock_guard lock(delegate->mu);
    if (delegate->current && !delegate->current->firstPost) delegate->current->missed = true;
    delegate->current = nullptr;
    typing = false;
  });
  int wakeUps = 0;
  while (typing.load()) {
    pollfd fd = {kx::main_loop::fd(), POLLIN, 0};
    if (poll(&fd, 1, 1) == 1) {
      ++wakeUps;
      kx::main_loop::drain();
    }
  }
  typist.join();
  out.wakeUpsPerWord = static_cast<double>(wakeUps) / static_cast<double>(words.size());
  return out;
}

// Query start to completion through the daemon connection.
class CompletionDelegate : public KXDaemonQueryDelegate {
 public:
  void searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>&) override {}
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&,
                         const std::shared_ptr<KXSearchResultDeserializer>&) override {}
  void searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>&) override { finish(); }
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&, const kx::Error&) override { finish(); }
  bool wait() {
    std::unique_lock lock(mu_);
    const bool ok = cv_.wait_for(lock, std::chrono::seconds(10), [&] { return done_; });
    done_ = false;
    return ok;
  }

 private:
  void finish() {
    std::lock_guard lock(mu_);
    done_ = true;
    cv_.notify_all();
  }
  std::mutex mu_;
  std::condition_variable cv_;
  bool done_ = false;
};

std::vector<double> DaemonConnectionLatencies(const std::vector<std::string>& texts) {
  auto connection = KXDaemonConnection::sharedConnection();
  auto queue = kx::Queue::Create("bench.transport");
  auto delegate = std::make_shared<CompletionDelegate>();
  std::vector<double> ms;
  for (const std::string& text : texts) {
    auto query = KXSearchQuery::initWithSearchString(text, "en_US", kDomains, std::nullopt);
    std::shared_ptr<KXDaemonQueryToken> token;
    const uint64_t start = Now();
    queue->sync([&] {
      token = connection->startQuery(query, kx::Value(), true, queue);
      token->setDelegate(delegate);
    });
    if (!delegate->wait()) return {};
    ms.push_back(static_cast<double>(Now() - start) / 1e6);
    connection->cancelQuery(token);
  }
  return ms;
}

std::vector<double> BusLatencies(const std::string& root, const std::string& indexPath, const char* self,
                                 const std::vector<std::string>& texts) {
  std::optional<kx::ChildProcess> busDaemon, peer;
  std::optional<std::string> address = kx::bench::StartBus(root, "0-1", &busDaemon);
  if (!address) return {};
  peer = kx::ChildProcess::Spawn(self, {"--bus-peer", *address, indexPath});
  sd_bus* bus = kx::bench::ConnectBus(*address);
  if (!bus || !peer) return {};
  std::vector<double> ms;
  bool ready = false;
  for (int i = 0; i < 1000 && !(ready = kx::bench::CallBusSearch(bus, "a").has_value()); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  for (const std::string& text : texts) {
    if (!ready) break;
    const uint64_t start = Now();
    if (!kx::bench::CallBusSearch(bus, text)) break;
    ms.push_back(static_cast<double>(Now() - start) / 1e6);
  }
  sd_bus_flush_close_unref(bus);
  return ms;
}

void PrintLatencyRow(const char* what, const std::vector<double>& ms) {
  std::printf("| %s | %zu | %.2f ms | %.2f ms | %.2f ms |\n", what, ms.size(), PercentileOf(ms, 0.5),
              PercentileOf(ms, 0.95), PercentileOf(ms, 0.99));
}

void Run(int size, const Options& options, const std::string& root, const char* self) {
  std::printf("\n## %d items (load average before: %s)\n\n", size, LoadAverage().c_str());
  kx::bench::Corpus corpus;
  std::vector<Item> items;
  for (int i = 0; i < size; ++i) items.push_back(corpus.item(i));

  const std::string indexDir = root + "/index-" + std::to_string(size);
  std::filesystem::create_directories(indexDir);
  const std::string indexPath = indexDir + "/index.db";
  const kx::bench::BuildTime build = kx::bench::BuildIndex(indexPath, items);
  std::printf("our index build: %.2f s wall, %.2f s CPU (%.0f items/s of CPU)\n", build.wallSeconds,
              build.cpuSeconds, size / build.cpuSeconds);
  std::printf("our index size: %.1f MiB\n", MiB(std::filesystem::file_size(indexPath)));

  std::filesystem::create_directories(root + "/empty");
  std::optional<kx::ChildProcess> daemon = kx::bench::StartSearchd(
      KX_SEARCHD, std::string(KXDaemonConnection::kDefaultDaemonName), indexDir, root + "/empty");
  if (!daemon) return;

  MatchChecker checker(items);
  const std::vector<std::string> words = TypedWords(items, options.words);
  Type({words.begin(), words.begin() + std::min<size_t>(words.size(), 3)}, checker);  // warm up
  const uint64_t typingCpu = CpuNow();
  const double daemonCpuBefore = ProcessCpuSeconds(daemon->pid());
  const TypingResult typed = Type(words, checker);
  const double clientCpu = static_cast<double>(CpuNow() - typingCpu) / 1e9;
  const double daemonCpu = ProcessCpuSeconds(daemon->pid()) - daemonCpuBefore;
  const kx::bench::ProcessMemory memory = kx::bench::MemoryOf(daemon->pid());

  std::map<size_t, std::vector<double>> byLength;
  std::vector<double> all;
  std::vector<std::string> texts;
  size_t misses = 0;
  for (const Keystroke& k : typed.keystrokes) {
    texts.push_back(k.text);
    if (k.missed || !k.firstPost) {
      ++misses;
      continue;
    }
    const double ms = static_cast<double>(k.firstPost - k.at) / 1e6;
    byLength[k.letters].push_back(ms);
    all.push_back(ms);
  }
  const double keystrokes = static_cast<double>(typed.keystrokes.size());
  std::printf("typed %zu words, %zu keystrokes: miss rate %.2f%% (%zu), %.1f main-queue wake-ups per word; "
              "CPU per keystroke: client %.2f ms, kx-searchd %.2f ms\n",
              words.size(), typed.keystrokes.size(), 100.0 * misses / keystrokes, misses, typed.wakeUpsPerWord,
              1e3 * clientCpu / keystrokes, 1e3 * daemonCpu / keystrokes);
  std::printf("kx-searchd: VmRSS %.1f MiB, VmHWM %.1f MiB\n\n", memory.rssKiB / 1024.0, memory.hwmKiB / 1024.0);

  std::vector<double> trackerAll;
  std::map<size_t, std::vector<double>> trackerByLength;
  if (options.tracker) {
    std::unique_ptr<kx::bench::TrackerAnchor> tracker = kx::bench::TrackerAnchor::Create(root + "/tracker-" + std::to_string(size));
    const uint64_t start = Now(), cpuStart = CpuNow();
    if (tracker && tracker->insert(items)) {
      const double wall = static_cast<double>(Now() - start) / 1e9, cpu = static_cast<double>(CpuNow() - cpuStart) / 1e9;
      std::printf("tracker build: %.2f s wall, %.2f s CPU (%.0f items/s of CPU)\n", wall, cpu, size / cpu);
      for (const Keystroke& k : typed.keystrokes) {
        const uint64_t at = Now();
        if (!tracker->search(k.text, kDomains, kPerDomain)) break;
        const double ms = static_cast<double>(Now() - at) / 1e6;
        trackerByLength[k.letters].push_back(ms);
        trackerAll.push_back(ms);
      }
    }
    std::error_code ignored;
    std::printf("tracker store size: %.1f MiB\n\n",
                MiB(std::filesystem::file_size(root + "/tracker-" + std::to_string(size) + "/meta.db", ignored)));
  }

  // Tracker's columns only when it ran.
  const bool withTracker = !trackerAll.empty();
  std::printf("| prefix length | ours: keystroke to first post p50 | p95 | p99 |%s\n| --- | --- | --- | --- |%s\n",
              withTracker ? " Tracker in-process p50 | p99 | Tracker p50 / ours p50 |" : "",
              withTracker ? " --- | --- | --- |" : "");
  auto row = [&](const std::string& label, const std::vector<double>& ms, const std::vector<double>& tracker) {
    std::printf("| %s | %.2f ms | %.2f ms | %.2f ms |", label.c_str(), PercentileOf(ms, 0.5), PercentileOf(ms, 0.95),
                PercentileOf(ms, 0.99));
    if (withTracker)
      std::printf(" %.2f ms | %.2f ms | %.1fx |", PercentileOf(tracker, 0.5), PercentileOf(tracker, 0.99),
                  PercentileOf(tracker, 0.5) / PercentileOf(ms, 0.5));
    std::printf("\n");
  };
  for (auto& [letters, ms] : byLength) row(std::to_string(letters), ms, trackerByLength[letters]);
  row("all", all, trackerAll);
  std::printf("\n");

  const std::vector<double> connection = DaemonConnectionLatencies(texts);
  const std::vector<double> bus = BusLatencies(root, indexPath, self, texts);
  std::printf("| transport, the typed prefixes one at a time | queries | p50 | p95 | p99 |\n| --- | --- | --- | --- | --- |\n");
  PrintLatencyRow("daemon connection to kx-searchd, start to completion", connection);
  PrintLatencyRow("D-Bus method call via a private dbus-daemon, same index and rules", bus);

  kill(daemon->pid(), SIGTERM);
  daemon->wait(std::chrono::milliseconds(10000));
  if (!options.svg.empty()) {
    std::vector<kx::bench::LatencySeries> series = {{"ours: keystroke to first post", "#3465a4", all}};
    if (!trackerAll.empty()) series.push_back({"Tracker in-process query", "#cc0000", trackerAll});
    const std::string title = std::to_string(size) + " items: latency per keystroke";
    if (kx::bench::WriteLatencySvg(options.svg, title, series)) std::printf("\nhistogram: %s\n", options.svg.c_str());
  }
  std::printf("load average after: %s\n", LoadAverage().c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--bus-peer")
    return kx::bench::ServeBusSearch(argv[2], argv[3], kDomains, kPerDomain);
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--words" && i + 1 < argc) {
      options.words = std::atoi(argv[++i]);
    } else if (arg == "--svg" && i + 1 < argc) {
      options.svg = argv[++i];
    } else if (arg == "--no-tracker") {
      options.tracker = false;
    } else if (arg.rfind("--benchmark", 0) == 0) {
      // `make bench` passes Google Benchmark's flags to every tool.
    } else if (std::atoi(arg.c_str()) > 0) {
      options.sizes.push_back(std::atoi(arg.c_str()));
    } else {
      std::fprintf(stderr, "usage: scale_bench [--words N] [--svg FILE] [--no-tracker] [items ...]\n");
      return 2;
    }
  }
  if (options.sizes.empty()) options.sizes = {10000};
  std::string root = (std::filesystem::temp_directory_path() / "kx-scale-bench.XXXXXX").string();
  if (!mkdtemp(root.data())) return 1;
  // A private runtime: the agent finds this daemon and no other.
  setenv("XDG_RUNTIME_DIR", root.c_str(), 1);
  setenv("KX_SERVICE_DIR", (root + "/services").c_str(), 1);
  setenv("KX_NOTIFY_DIR", (root + "/notify").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (root + "/config").c_str(), 1);
  for (int size : options.sizes) Run(size, options, root, argv[0]);
  std::filesystem::remove_all(root);
  return 0;
}
