// Clients that misbehave against kx-searchd: malformed "OpenQuery" info,
// floods of queries that are never closed, a client that stops reading.
// The daemon must stay up, keep within its per-client bounds, and go on
// answering a well-behaved client meanwhile. The bound on that client's
// answers is generous (1 s): it catches a daemon that stalls, not one that
// is slow (10 s in sanitizer builds); the latency figures come from
// bench/searchd_hostile_bench.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <thread>

#include "searchd/query_request.h"
#include "searchd/searchd_testing.h"
#include "searchd/server.h"

namespace kx::test {
namespace {

using ::testing::Contains;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Instrumented daemons run several times slower, more on a busy machine.
constexpr auto kAnswerBound = std::chrono::milliseconds(10000);
#else
constexpr auto kAnswerBound = std::chrono::milliseconds(1000);
#endif
// The refusal code of a request beyond the client bounds.
constexpr uint32_t kRefused = 2;

// How each query of a raw client ended: "SearchComplete" or "SearchError <code>".
class Endings {
 public:
  explicit Endings(Client& client) : client_(client) {}

  // The endings of queries `first`..`last`, waiting until each has one
  // (at most kTimeout).
  std::map<uint32_t, std::string> wait(uint32_t first, uint32_t last) {
    std::map<uint32_t, std::string> endings;
    const auto deadline = Clock::now() + kTimeout;
    while (endings.size() < last - first + 1 && Clock::now() < deadline) {
      endings.clear();
      for (const auto& m : client_.messages->items()) {
        const Number* qid = m->info()["QID"].number();
        if (!qid || qid->uint32Value() < first || qid->uint32Value() > last) continue;
        if (m->name() == "SearchComplete") endings[qid->uint32Value()] = "SearchComplete";
        if (m->name() == "SearchError") {
          const Number* code = m->info()["ERR"].number();
          endings[qid->uint32Value()] = "SearchError " + std::to_string(code ? code->uint32Value() : 0);
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return endings;
  }

 private:
  Client& client_;
};

Value OpenQueryInfo(uint32_t qid, const std::string& text) {
  return MakeDictionary({{"QID", Number::UInt32(qid)}, {"QS", text},
                         {"DA", Array{Number::UInt32(2), Number::UInt32(4), Number::UInt32(5)}},
                         {"QC", Number::Int64(13)}});
}

// A well-behaved query; fails the test when its answer is wrong or late.
void ExpectPromptAnswer(Searchd& daemon) {
  const auto start = Clock::now();
  EXPECT_THAT(TitlesIn(daemon.search("fil"), 4), Contains("Files"));
  EXPECT_LT(Clock::now() - start, kAnswerBound);
}

TEST(HostileClientsTest, MalformedOpenQueryIsAnsweredRefusedOrDropped) {
  Searchd daemon;
  ExpectPromptAnswer(daemon);  // starts it
  const pid_t pid = daemon.daemonPid();
  Client hostile("searchd-test");
  const std::string huge(10 << 20, 'a');
  Array manyDomains;
  for (int i = 0; i < 100000; ++i) manyDomains.emplace_back(Number::UInt32(4));

  // Without a query id there is nobody to answer: dropped.
  for (const Value& info : {Value(), Value("OpenQuery"), Value(Array{Number::UInt32(1)}),
                            Value(MakeDictionary({{"QID", "1"}, {"QS", "fil"}})),
                            Value(MakeDictionary({{"QS", "fil"}}))})
    hostile.connection->sendMessage(Named("OpenQuery", info));

  // Every key of the wrong type: the query runs with the defaults. One at
  // a time, to stay below the bound on open queries.
  const Value wrong[] = {Value(Number::UInt32(7)), Value("x"), Value(Array{}), Value(MakeDictionary({}))};
  uint32_t qid = 100;
  auto expectCompletes = [&](Dictionary info) {
    hostile.connection->sendMessage(Named("OpenQuery", Value(std::move(info))));
    EXPECT_EQ(Endings(hostile).wait(qid, qid)[qid], "SearchComplete") << "query " << qid;
  };
  for (const char* key : {"QS", "DA", "BA", "KL", "KPL", "QC", "DR", "DS", "IQ", "FC"})
    for (const Value& value : wrong) {
      Dictionary info = *OpenQueryInfo(++qid, "fil").dictionary();
      info[key] = value;
      expectCompletes(std::move(info));
    }
  // Wrongly typed elements inside the lists are skipped.
  Dictionary mixed = *OpenQueryInfo(++qid, "fil").dictionary();
  mixed["DA"] = Array{Value("4"), Value(Array{}), Number::UInt32(4)};
  mixed["BA"] = Array{Number::UInt32(1), Value(huge)};
  expectCompletes(std::move(mixed));

  // Beyond the bounds: refused whole, with an error the client can read.
  Dictionary longText = *OpenQueryInfo(201, huge).dictionary();
  Dictionary domains = *OpenQueryInfo(202, "fil").dictionary();
  domains["DA"] = manyDomains;
  Dictionary atBound = *OpenQueryInfo(203, std::string(searchd::kMaxQueryTextBytes, 'q')).dictionary();
  Dictionary longLanguage = *OpenQueryInfo(204, "fil").dictionary();
  longLanguage["KL"] = huge;
  for (Dictionary* info : {&longText, &domains, &atBound, &longLanguage})
    hostile.connection->sendMessage(Named("OpenQuery", Value(std::move(*info))));
  std::map<uint32_t, std::string> endings = Endings(hostile).wait(201, 204);
  EXPECT_EQ(endings[201], "SearchError " + std::to_string(kRefused));
  EXPECT_EQ(endings[202], "SearchError " + std::to_string(kRefused));
  EXPECT_EQ(endings[203], "SearchComplete");
  EXPECT_EQ(endings[204], "SearchComplete");

  ExpectPromptAnswer(daemon);
  EXPECT_EQ(daemon.daemonPid(), pid) << "the daemon was restarted";
}

TEST(HostileClientsTest, AFloodOfUnclosedQueriesIsBoundedPerClient) {
  Searchd daemon;
  ExpectPromptAnswer(daemon);
  Client hostile("searchd-test");
  constexpr uint32_t kFlood = 400;
  // Far more queries in flight than a client may hold open, but few enough
  // that the hostile client's own connection keeps up with its sends.
  constexpr uint32_t kInFlight = 128;
  std::atomic<bool> flooding{true};
  std::thread flood([&] {
    Endings endings(hostile);
    for (uint32_t qid = 1; qid <= kFlood; ++qid) {
      if (qid > kInFlight) endings.wait(qid - kInFlight, qid - kInFlight);
      hostile.connection->sendMessage(Named("OpenQuery", OpenQueryInfo(qid, "e")));
    }
    flooding = false;
  });
  // Another client is answered promptly while the flood goes on.
  do ExpectPromptAnswer(daemon);
  while (flooding && !testing::Test::HasFailure());
  flood.join();
  const std::map<uint32_t, std::string> endings = Endings(hostile).wait(1, kFlood);
  ASSERT_EQ(endings.size(), kFlood) << "every query is completed or refused";
  size_t refused = 0;
  for (const auto& [id, ending] : endings) {
    if (ending == "SearchComplete") continue;
    EXPECT_EQ(ending, "SearchError " + std::to_string(kRefused)) << id;
    ++refused;
  }
  // The flood outruns the workers, so the bound on open queries is reached.
  EXPECT_GT(refused, 0u);
  EXPECT_GE(kFlood - refused, searchd::kMaxOpenQueriesPerClient);
  ExpectPromptAnswer(daemon);
}

TEST(HostileClientsTest, AClientThatStopsReadingIsClosedAndOthersAreServed) {
  Searchd daemon;
  ExpectPromptAnswer(daemon);  // starts it
  const pid_t pid = daemon.daemonPid();
  // Shared memory and sockets only: the workers' index connections open
  // their log files on first use, whenever the flood reaches each of them.
  auto descriptors = [pid] {
    size_t n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
      std::error_code ec;
      const std::string target = std::filesystem::read_symlink(entry.path(), ec).string();
      if (target.rfind("/memfd:", 0) == 0 || target.rfind("socket:", 0) == 0) ++n;
    }
    return n;
  };
  const size_t before = descriptors();
  Client stalled("searchd-test");
  // The client's queue never runs again, so its reader stops reading.
  std::promise<void> release;
  stalled.queue->async([future = release.get_future().share()] { future.wait(); });
  for (uint32_t qid = 1; qid <= 3000 && stalled.disconnects->size() == 0; ++qid) {
    stalled.connection->sendMessage(Named("OpenQuery", OpenQueryInfo(qid, "e")));
    if (qid % 100 == 0) ExpectPromptAnswer(daemon);
  }
  ExpectPromptAnswer(daemon);
  // The daemon gives the client up: its queued answers and their
  // shared-memory descriptors are let go.
  for (auto deadline = Clock::now() + kTimeout; descriptors() > before + 2 && Clock::now() < deadline;)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_LE(descriptors(), before + 2);
  release.set_value();
  EXPECT_TRUE(stalled.disconnects->waitFor(1)) << "the daemon did not close the stalled client";
  EXPECT_EQ(daemon.daemonPid(), pid);
}

}  // namespace
}  // namespace kx::test
