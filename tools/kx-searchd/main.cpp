// kx-searchd: the reference search daemon.
//
//   kx-searchd [--data-root DIR] [--index DIR] [--service NAME] [--foreground]
//              [--request-log FILE]
//
// Brings its index up to date with the sources (a progress bar on standard
// error while a first index is built on a terminal), then serves the daemon
// connection. Under a launcher or systemd socket activation it takes the
// listening socket from LISTEN_FDS; started by hand it binds the service's
// socket itself and, unless --foreground is given, detaches once the index
// is ready. SIGTERM and SIGINT stop it after the running queries have sent
// their last batch.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "kx/date_strings.h"
#include "kx/log_init.h"
#include "kx/main_loop.h"
#include "searchd/calculator.h"
#include "searchd/icon_theme.h"
#include "searchd/indexer.h"
#include "searchd/live_updates.h"
#include "searchd/server.h"

namespace {

constexpr const char* kUsage =
    "usage: kx-searchd [options]\n"
    "  --data-root DIR   read applications/, contacts/, notes/, mail/ (Maildir\n"
    "                    folders), calendar/ (.ics) and documents/ under DIR\n"
    "                    (icons from DIR/icons first) instead of the user's data\n"
    "  --index DIR       keep the index in DIR (default $XDG_CACHE_HOME/kxsearch)\n"
    "  --service NAME    serve NAME (default com.orvex.searchd)\n"
    "  --foreground      stay attached to the terminal when started by hand\n"
    "  --request-log FILE  append a line per query request to FILE (tests)\n"
    "  --help            show this help\n";

struct Options {
  std::string dataRoot;
  std::string indexDir;
  std::string service = "com.orvex.searchd";
  std::string requestLog;
  bool foreground = false;
};

std::optional<Options> Parse(int argc, char** argv, bool* help) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      *help = true;
    } else if (arg == "--foreground") {
      options.foreground = true;
    } else if (arg == "--data-root" && hasValue) {
      options.dataRoot = argv[++i];
    } else if (arg == "--index" && hasValue) {
      options.indexDir = argv[++i];
    } else if (arg == "--service" && hasValue) {
      options.service = argv[++i];
    } else if (arg == "--request-log" && hasValue) {
      options.requestLog = argv[++i];
    } else {
      std::fprintf(stderr, "kx-searchd: unknown or incomplete option %s\n", arg.c_str());
      return std::nullopt;
    }
  }
  return options;
}

std::string DefaultIndexDir() {
  const char* cache = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  return (cache && *cache ? std::string(cache) : std::string(home ? home : "") + "/.cache") + "/kxsearch";
}

void DrawProgress(size_t done, size_t total) {
  constexpr int kWidth = 40;
  const int filled = total ? static_cast<int>(kWidth * done / total) : kWidth;
  std::fprintf(stderr, "\rindexing [%.*s%*s] %zu/%zu", filled,
               "########################################", kWidth - filled, "", done, total);
  if (done == total) std::fputc('\n', stderr);
}

// Cheapest domains first: their results make the first batch.
std::vector<uint32_t> DomainOrder(kx::searchd::Index& index) {
  std::vector<std::pair<int64_t, uint32_t>> bySize;
  for (const auto& [domain, count] : index.domainCounts()) bySize.emplace_back(count, domain);
  std::sort(bySize.begin(), bySize.end());
  std::vector<uint32_t> order;
  for (const auto& [count, domain] : bySize) order.push_back(domain);
  return order;
}

// Every message waiting for a slow client may hold a shared-memory
// descriptor; the soft limit of 1,024 would let a few such clients starve
// the daemon of descriptors long before the message layer gives up on them.
void RaiseDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

bool SocketActivated() {
  const char* fds = std::getenv("LISTEN_FDS");
  const char* pid = std::getenv("LISTEN_PID");
  return fds && pid && std::atol(pid) == static_cast<long>(getpid());
}

size_t ThreadCount() {
  std::error_code ec;
  size_t n = 0;
  for (std::filesystem::directory_iterator it("/proc/self/task", ec), end; !ec && it != end; it.increment(ec)) ++n;
  return n;
}

// Forks into the background; only safe while the process has one thread,
// so a process that already has more stays in the foreground.
void Detach() {
  if (ThreadCount() != 1) return;
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("kx-searchd: fork");
    return;
  }
  if (pid > 0) _exit(0);
  setsid();
}

}  // namespace

int main(int argc, char** argv) {
  bool help = false;
  std::optional<Options> options = Parse(argc, argv, &help);
  if (help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (!options) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  RaiseDescriptorLimit();
  // Blocked in every thread; one thread waits for them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  KXLogInit();

  const std::string indexDir = options->indexDir.empty() ? DefaultIndexDir() : options->indexDir;
  std::error_code ec;
  std::filesystem::create_directories(indexDir, ec);
  const std::string indexPath = indexDir + "/index.db";
  using namespace kx::searchd;
  try {
    Index writer(indexPath, /*readOnly=*/false);
    const SourceLocations locations = options->dataRoot.empty()
                                          ? SourceLocations::ForUser()
                                          : SourceLocations::UnderRoot(options->dataRoot);
    if (!options->dataRoot.empty()) SetExtraIconDirectories({options->dataRoot + "/icons"});
    const bool firstBuild = writer.itemCount() == 0;
    Indexer indexer(writer, MakeSources(locations));
    std::mutex writerMutex;
    // Watching from before the first pass: what changes during it is read
    // again once the server runs.
    LiveUpdates live(indexer, writerMutex);
    const IndexerStats stats =
        indexer.update(firstBuild && isatty(STDERR_FILENO) ? Indexer::Progress(DrawProgress) : nullptr);
    KXLOG(6, "kx-searchd: %zu files, %zu read, %zu skipped, %zu removed", stats.filesSeen,
          stats.filesRead, stats.filesSkipped, stats.filesRemoved);

    if (!options->foreground && !SocketActivated() && isatty(STDIN_FILENO)) Detach();

    ServerOptions serverOptions;
    serverOptions.serviceName = options->service;
    serverOptions.indexPath = indexPath;
    serverOptions.requestLogPath = options->requestLog;
    SearchServer server(serverOptions, writer, writerMutex);
    server.setDomainOrder(DomainOrder(writer));
    // Subtitles of dated items need the day-and-time formatters, whose
    // making reads the host's time zone through the C library's tzset(),
    // as the calculator's loading does. Made here, before the preload thread
    // starts, they never do it at the same time (the C library serialises
    // tzset() with a lock ThreadSanitizer cannot see).
    // (A day long past: today's date would be said as "Today" and leave the
    // day formatter unmade.)
    KXDayAndTimeStringForDate(kx::Date{0});
    std::thread preload(PreloadCalculator);
    server.start();
    // Runs on the watcher's thread, which holds no lock by then.
    live.start([&] {
      std::lock_guard lock(writerMutex);
      server.setDomainOrder(DomainOrder(writer));
    });

    std::atomic<bool> signalled{false};
    std::thread waiter([stopSignals, &signalled] {
      int signal = 0;
      sigwait(&stopSignals, &signal);
      signalled = true;
      kx::main_loop::stop();
    });
    kx::main_loop::run();
    live.stop();
    server.drain();
    preload.join();
    // The waiter must not outlive main: wake it if the loop ended otherwise.
    if (!signalled) pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kx-searchd: %s\n", e.what());
    return 1;
  }
  return 0;
}
