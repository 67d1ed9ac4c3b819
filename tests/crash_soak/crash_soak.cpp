// crash_soak: types random texts into a search agent while kx-searchd, run
// by kx-launch over a copy of the sample data, is killed with SIGKILL at
// random moments of the agent's queries.
//
//   crash_soak [--iterations N] [--seed S] [--build-dir DIR] [--data DIR]
//              [--log-level N] [--keep-on-failure DIR]
//
// Each iteration types one text character by character. Most texts get at
// most one kill, at a random keystroke and a random delay after it. Every
// fourth text gets two kills of its final query: the first once the query
// reached a daemon, the second once the restarted daemon took the re-sent
// query (or at a random moment after the restart). After each text settles:
// - the agent's last post belongs to that text and holds the answer of the
//   same query on a fresh connection (per domain: titles and identifiers);
// - no query reached daemons more than twice (it is re-sent once at most);
// - after a second kill the query may stay without an answer: then no
//   daemon was started for it again, the agent posts nothing more, and its
//   last post is the part of the answer that arrived before the kill;
// - after every text: the running daemon's descriptors, mappings and
//   threads are at most those of the first warmed-up daemon (plus an
//   allowance for lazily opened index files), the launcher's descriptors
//   unchanged, and no daemon ended other than by our kill; every tenth
//   text and at the end: this process's counts are back at their counts
//   after the warm-up.
// A failure prints the seed and the text; the same seed replays the run.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "tests/crash_soak/answers.h"
#include "tests/crash_soak/process_counts.h"
#include "tests/crash_soak/random_text.h"
#include "tests/crash_soak/soak_client.h"
#include "tests/crash_soak/soak_daemon.h"
#include "tests/support/test_environment.h"
#include "kx/log.h"

namespace kx::soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using namespace std::chrono_literals;

constexpr const char* kService = "com.orvex.searchd";
// The first iterations fill caches, thread pools and allocator arenas; the
// counts they leave are the baseline.
constexpr size_t kWarmUpIterations = 5;
constexpr size_t kCountCheckEvery = 10;
constexpr size_t kDoubleKillEvery = 4;
// Threads that pools start and retire after the warm-up may leave what the
// C library keeps for later threads: a cached stack (two anonymous
// mappings) and an allocator arena (two more). Descriptors, threads and
// mappings of files and shared memory get no such allowance. Under a
// sanitizer the anonymous mappings are mostly its own shadow memory and
// allocator regions, which grow as memory is touched: not counted there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kAnonymousAllowance = size_t{1} << 30;
#else
constexpr size_t kAnonymousAllowance = 16;
#endif
constexpr ProcessCounts kClientAllowance{.anonymousMappings = kAnonymousAllowance};
// A restarted daemon is compared with the first warmed-up one, which may
// itself have started shortly before: SQLite opens a read connection's
// write-ahead log and maps its shared index on the connection's first read
// (one descriptor and one mapping per connection: the workers and the
// lookup reader), and two threads start on first need and then stay (the
// message layer's writer for clients whose socket is full, and a dispatch
// pool thread under load).
constexpr ProcessCounts kDaemonAllowance{.descriptors = 3, .fileMappings = 3,
                                         .anonymousMappings = kAnonymousAllowance, .threads = 2};
constexpr milliseconds kAnswerTimeout = 30s;
// Pools retire idle threads and connections close asynchronously.
constexpr milliseconds kSettleCountsTimeout = 10s;
// A query is taken to have no answer coming once no daemon ran this long.
constexpr milliseconds kNoDaemonQuiet = 1s;

struct Options {
  size_t iterations = 50;
  uint64_t seed = std::random_device{}();
  std::string buildDir = KX_BUILD_DIR;
  std::string dataDir = KX_EXAMPLES_DATA;
  std::optional<int> logLevel;  // this process's log level
  std::string keepDir;          // where a failed run's files are copied
};

struct Tally {
  size_t kills = 0;
  size_t resentAndAnswered = 0;
  size_t secondKillUnanswered = 0;
  size_t killedAfterCompletion = 0;
  milliseconds slowestSettle{0};
};

class Failure : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

void Require(bool condition, const std::string& what) {
  if (!condition) throw Failure(what);
}

// Polls `read` until its counts are within `bound`; the last counts read.
template <class Read>
ProcessCounts WaitWithin(const ProcessCounts& bound, Read read) {
  ProcessCounts now = read();
  for (auto deadline = Clock::now() + kSettleCountsTimeout; !now.within(bound) && Clock::now() < deadline;) {
    std::this_thread::sleep_for(20ms);
    now = read();
  }
  return now;
}

class Soak {
 public:
  Soak(const Options& options, SoakDaemon& daemon, SoakClient& client, RandomText& texts)
      : options_(options), daemon_(daemon), client_(client), texts_(texts) {}

  void iterate(size_t iteration) {
    text_ = texts_.next();
    const auto started = Clock::now();
    if (iteration % kDoubleKillEvery == kDoubleKillEvery - 1) {
      killTwice();
    } else {
      killOnceWhileTyping();
    }
    tally_.slowestSettle = std::max(tally_.slowestSettle,
                                    std::chrono::duration_cast<milliseconds>(Clock::now() - started));
    if (iteration + 1 == kWarmUpIterations) takeBaselines();
    if (iteration + 1 <= kWarmUpIterations) return;
    checkDaemon();
    if ((iteration + 1) % kCountCheckEvery == 0) checkClient();
  }

  void finish() {
    if (haveBaselines_) {
      checkDaemon();
      checkClient();
    }
    const SoakDaemon::TraceSummary trace = daemon_.summarizeTrace();
    Require(trace.mostOpens <= 2, "a query reached daemons " + std::to_string(trace.mostOpens) + " times");
    Require(trace.opensAfterClose == 0,
            std::to_string(trace.opensAfterClose) + " queries were re-sent after they were closed");
  }

  const std::string& text() const { return text_; }
  const Tally& tally() const { return tally_; }
  std::string countsReport() const {
    return "client at most " + clientBaseline_.describe() + ", " + ReadProcessCounts().describe() +
           " now\n  daemon at most " + daemonBaseline_.describe();
  }

 private:
  // At most one kill: before a random keystroke, after the last one, or
  // none, each after a random pause.
  void killOnceWhileTyping() {
    const size_t keystrokes = CharacterCount(text_);
    const size_t killAt = texts_.below(keystrokes + 2);  // keystrokes: after the last; beyond: none
    const milliseconds pause(texts_.below(25));
    auto killNow = [&] {
      std::this_thread::sleep_for(pause);
      if (daemon_.kill() > 0) ++tally_.kills;
    };
    client_.type(text_, [&](size_t keystroke) {
      if (keystroke == killAt && keystroke > 0) killNow();
    });
    if (killAt == keystrokes) killNow();
    const uint32_t qid = client_.currentQueryID();
    Require(client_.settle(overall()), "the agent's query " + std::to_string(qid) + " did not complete; it reached daemons " +
                                           std::to_string(daemon_.openCount(qid)) + " times, daemon pid " +
                                           std::to_string(daemon_.pid()));
    requireAtMostOneResend(qid);
    requireFreshAnswer();
  }

  // Kills the final query's daemon, then the daemon that took it again.
  void killTwice() {
    // Frozen before the last keystroke, the daemon holds the final query
    // unanswered until the kill.
    const size_t keystrokes = CharacterCount(text_);
    client_.type(text_, [&](size_t keystroke) {
      if (keystroke + 1 == keystrokes) daemon_.freeze();
    });
    const uint32_t qid = client_.currentQueryID();
    std::this_thread::sleep_for(std::chrono::microseconds(texts_.below(4000)));
    if (daemon_.kill() > 0) ++tally_.kills;
    const size_t before = daemon_.openCount(qid);
    // The second kill: as soon as the re-sent query reached the restarted
    // daemon (frozen there at once), or at a random moment after the restart.
    const bool atArrival = texts_.below(2) == 0;
    const std::chrono::microseconds delay(texts_.below(20000));
    bool secondKill = false;
    for (auto quietSince = Clock::now(), deadline = Clock::now() + kAnswerTimeout;;) {
      if (Clock::now() > deadline) throw Failure("the re-sent query reached no daemon");
      if (daemon_.openCount(qid) > before || (!atArrival && daemon_.pid() > 0)) {
        if (atArrival) daemon_.freeze();
        std::this_thread::sleep_for(atArrival ? delay / 10 : delay);
        secondKill = daemon_.kill() > 0;
        tally_.kills += secondKill;
        break;
      }
      // Completed before the first kill: nothing is re-sent, no daemon runs.
      if (daemon_.pid() > 0) quietSince = Clock::now();
      if (Clock::now() - quietSince > kNoDaemonQuiet) break;
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    auto quietSince = Clock::now();
    const bool answered = client_.settle([&] {
      if (daemon_.pid() > 0) quietSince = Clock::now();
      return Clock::now() - quietSince > kNoDaemonQuiet || overall()();
    });
    requireAtMostOneResend(qid);
    if (answered) {
      if (daemon_.openCount(qid) > before) {
        ++tally_.resentAndAnswered;
      } else {
        ++tally_.killedAfterCompletion;
      }
      requireFreshAnswer();
      return;
    }
    Require(secondKill, "the query was left without an answer after a single kill");
    ++tally_.secondKillUnanswered;
    // Nothing was re-sent: nobody connected, so no daemon was started.
    Require(daemon_.pid() == 0, "a daemon was started after the second kill");
    const size_t posts = client_.postCount();
    const Post last = client_.lastPost();
    client_.idle(600ms);
    Require(client_.postCount() == posts, "the agent posted after the second kill");
    Require(last.seqNo == client_.agent().currentQuerySeqNo(), "the last post belongs to an older text");
    const std::optional<Answer> fresh = freshAnswer();
    Require(IsPartOf(last.answer, *fresh), "the unanswered query's post is no part of the answer:\n" +
                                               Describe(last.answer) + "fresh:\n" + Describe(*fresh));
  }

  void requireAtMostOneResend(uint32_t qid) {
    const size_t opened = daemon_.openCount(qid);
    Require(opened <= 2, "query " + std::to_string(qid) + " reached daemons " + std::to_string(opened) + " times");
  }

  std::optional<Answer> freshAnswer() {
    std::vector<uint32_t> domains;
    // The agent types with the internet not allowed: no server domains.
    for (uint32_t d : client_.agent().searchDomains())
      if (d != 16 && d != 17) domains.push_back(d);
    std::optional<Answer> fresh = FreshAnswer(kService, text_, domains, kAnswerTimeout);
    Require(fresh.has_value(), "the fresh query did not complete");
    return fresh;
  }

  void requireFreshAnswer() {
    const Post& last = client_.lastPost();
    Require(!last.cleared && last.seqNo == client_.agent().currentQuerySeqNo(),
            "the agent's last post does not belong to the last text");
    const std::optional<Answer> fresh = freshAnswer();
    Require(last.answer == *fresh,
            "the agent posted\n" + Describe(last.answer) + "a fresh query answers\n" + Describe(*fresh));
  }

  void takeBaselines() {
    // The fresh query's connection ends asynchronously; the baseline is
    // taken once this process and the daemon stopped shrinking.
    // A kill after a query completed leaves the shared connection down
    // until the next request: counts are always taken with it up.
    KXSearchAgent::activateDaemon();
    clientBaseline_ = Quiet([] { return ReadProcessCounts(); }).plus(kClientAllowance);
    clientBaselineMaps_ = Mappings();
    const pid_t pid = daemon_.waitForPid(kAnswerTimeout);
    daemonBaseline_ = Quiet([&] { return ReadProcessCounts(pid); }).plus(kDaemonAllowance);
    daemonBaselineTargets_ = DescriptorTargets(pid);
    launcherBaseline_ = ReadProcessCounts(daemon_.launcherPid());
    haveBaselines_ = true;
  }

  void checkClient() {
    KXSearchAgent::activateDaemon();  // see takeBaselines
    const ProcessCounts client = WaitWithin(clientBaseline_, [] { return ReadProcessCounts(); });
    Require(client.within(clientBaseline_), "the client holds " + client.describe() + ", at most " +
                                                clientBaseline_.describe() + "\nnew mappings:\n" +
                                                NewLines(clientBaselineMaps_, Mappings()));
  }

  // After every text, so every restarted daemon is seen at least once.
  void checkDaemon() {
    const std::string faults = daemon_.faults();
    Require(faults.empty(), "the daemon failed on its own:\n" + faults);
    if (const pid_t pid = daemon_.pid(); pid > 0) {
      const ProcessCounts daemon = WaitWithin(daemonBaseline_, [&] { return ReadProcessCounts(pid); });
      Require(daemon.within(daemonBaseline_) || daemon_.pid() != pid,
              "the daemon holds " + daemon.describe() + ", at most " + daemonBaseline_.describe() +
                  "\nnow:\n" + DescriptorTargets(pid) + "the first one:\n" + daemonBaselineTargets_);
    }
    const ProcessCounts launcher = ReadProcessCounts(daemon_.launcherPid());
    Require(launcher.descriptors == launcherBaseline_.descriptors,
            "the launcher holds " + launcher.describe() + ", at the start " + launcherBaseline_.describe());
  }

  template <class Read>
  static ProcessCounts Quiet(Read read) {
    ProcessCounts last = read();
    for (int steady = 0; steady < 10; std::this_thread::sleep_for(20ms)) {
      const ProcessCounts now = read();
      steady = now.within(last) && last.within(now) ? steady + 1 : 0;
      last = now;
    }
    return last;
  }

  std::function<bool()> overall() {
    const auto deadline = Clock::now() + kAnswerTimeout;
    return [deadline] { return Clock::now() > deadline; };
  }

  static size_t CharacterCount(const std::string& text) {
    size_t n = 0;
    for (unsigned char c : text) n += (c & 0xC0) != 0x80;
    return n;
  }

  const Options& options_;
  SoakDaemon& daemon_;
  SoakClient& client_;
  RandomText& texts_;
  std::string text_;
  Tally tally_;
  bool haveBaselines_ = false;
  ProcessCounts clientBaseline_, daemonBaseline_, launcherBaseline_;
  std::string daemonBaselineTargets_, clientBaselineMaps_;
};

std::optional<Options> Parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i], value = argv[i + 1];
    if (arg == "--iterations") {
      options.iterations = std::strtoul(value.c_str(), nullptr, 10);
    } else if (arg == "--seed") {
      options.seed = std::strtoull(value.c_str(), nullptr, 10);
    } else if (arg == "--build-dir") {
      options.buildDir = value;
    } else if (arg == "--data") {
      options.dataDir = value;
    } else if (arg == "--log-level") {
      options.logLevel = std::atoi(value.c_str());
    } else if (arg == "--keep-on-failure") {
      options.keepDir = value;
    } else {
      return std::nullopt;
    }
  }
  if (argc % 2 == 0) return std::nullopt;
  return options;
}

int Run(const Options& options) {
  test::SetUpIsolatedEnvironment();
  if (options.logLevel) setKXLogLevel(*options.logLevel);
  SoakDaemon daemon(options.buildDir, options.dataDir, test::TestRoot(), kService);
  RandomText texts(daemon.dataDir(), options.seed);
  std::shared_ptr<SoakClient> client = SoakClient::Create();
  Soak soak(options, daemon, *client, texts);
  std::printf("crash_soak: seed %llu, %zu iterations, %zu words\n",
              static_cast<unsigned long long>(options.seed), options.iterations, texts.vocabularySize());
  const auto started = Clock::now();
  size_t iteration = 0;
  try {
    for (; iteration < options.iterations; ++iteration) soak.iterate(iteration);
    soak.finish();
  } catch (const Failure& failure) {
    std::printf("crash_soak: FAILED at iteration %zu, text \"%s\" (replay with --seed %llu):\n%s\n",
                iteration, soak.text().c_str(), static_cast<unsigned long long>(options.seed),
                failure.what());
    if (!options.keepDir.empty()) {
      // The trace, the index and both processes' log file, for a post-mortem.
      std::error_code ec;
      std::filesystem::copy(test::TestRoot(), options.keepDir, std::filesystem::copy_options::recursive, ec);
      std::printf("crash_soak: the run's files are in %s\n", options.keepDir.c_str());
    }
    return 1;
  }
  const Tally& t = soak.tally();
  const auto seconds = std::chrono::duration<double>(Clock::now() - started).count();
  std::printf(
      "crash_soak: %zu texts in %.1f s, %zu kills; double kills: %zu answered after the re-send, "
      "%zu left unanswered as expected, %zu after completion; slowest text %lld ms\n  %s\n",
      options.iterations, seconds, t.kills, t.resentAndAnswered, t.secondKillUnanswered,
      t.killedAfterCompletion, static_cast<long long>(t.slowestSettle.count()), soak.countsReport().c_str());
  return 0;
}

}  // namespace
}  // namespace kx::soak

int main(int argc, char** argv) {
  std::optional<kx::soak::Options> options = kx::soak::Parse(argc, argv);
  if (!options) {
    std::fprintf(stderr,
                 "usage: crash_soak [--iterations N] [--seed S] [--build-dir DIR] [--data DIR]\n"
                 "                  [--log-level N] [--keep-on-failure DIR]\n");
    return 2;
  }
  // Connections to a killed daemon must not end this process.
  signal(SIGPIPE, SIG_IGN);
  return kx::soak::Run(*options);
}
