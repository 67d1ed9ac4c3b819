// The client against a hostile daemon (tests/hostile_daemon.cpp): damaged,
// oversized and misaddressed batches, unusable regions and deep nesting.
// Whatever arrives, the client stays up, answers in time, keeps no
// descriptor or mapping, stays within its memory bound, and the agent shows
// exactly the sections that decoded before the fault.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <string>

#include "agent/agent_testing.h"
#include "kx/KXDaemonConnection.h"
#include "platform/message/message_testing.h"

namespace kx {
namespace {

using test::AgentFixture;
using test::DaemonClient;
using test::DrainUntil;
using test::TestDaemon;
using Events = std::vector<std::string>;
using namespace std::chrono_literals;

constexpr char kHostile[] = "hostile_daemon";
constexpr char kBefore[] = "40:40.1,40.2";
constexpr char kFence[] = "99:99.1,99.2";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers' shadow memory and quarantine make resident sizes
// meaningless; descriptors and mappings are still counted.
constexpr bool kMeasuresMemory = false;
#else
constexpr bool kMeasuresMemory = true;
#endif

// What one hostile case may add to the client's peak resident memory: the
// largest stream the client accepts (2 MiB), mapped, plus its decoding
// budget (64 MiB), the agent's lists of pointers and the allocator's slack (see "Hostile daemon" in
// docs/ARCHITECTURE.md).
constexpr long kPeakGrowthBoundKiB = 80 * 1024;

long StatusKiB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
  return -1;
}

// Descriptors and memfd mappings, which must come back to their counts, and
// the peak resident size since the last reset.
struct Footprint {
  Footprint() {
    // Writing 5 resets the peak resident size (VmHWM) to the current one.
    std::ofstream("/proc/self/clear_refs") << "5";
    residentKiB = StatusKiB("VmHWM");
  }

  void expectReturned(const std::string& label) const {
    EXPECT_EQ(test::OpenDescriptorCount(), descriptors) << label;
    EXPECT_EQ(test::SharedMemoryMappingCount(), mappings) << label;
    if (kMeasuresMemory) {
      EXPECT_LE(StatusKiB("VmHWM") - residentKiB, kPeakGrowthBoundKiB) << label;
    }
  }

  size_t descriptors = test::OpenDescriptorCount();
  size_t mappings = test::SharedMemoryMappingCount();
  long residentKiB = 0;
};

struct HostileAgent : AgentFixture {
  HostileAgent() : AgentFixture({}, 0, 0, nullptr, kHostile) {}

  // Types `script` and returns the list posted once its query completed.
  std::string run(const std::string& script) {
    agent->setQueryString(script, "en", 0, true);
    // The query queue clears the last query's completion first.
    settle();
    EXPECT_TRUE(DrainUntil([&] { return agent->queryComplete(); })) << script;
    settle();
    return delegate->lastSections();
  }
};

std::string Sections(std::initializer_list<std::string> parts) {
  std::string out;
  for (const std::string& part : parts)
    if (!part.empty()) out += (out.empty() ? "" : " ") + part;
  return out;
}

TEST(HostileDaemonTest, AgentShowsTheSectionsDecodedBeforeEachFault) {
  HostileAgent f;
  // A first query maps, allocates and connects what every later one reuses.
  EXPECT_EQ(f.run("good:40 complete"), kBefore);
  const struct {
    const char* word;
    std::string decoded;  // what the batch adds to the list
  } kCases[] = {
      {"cut:50:3", "50:50.1,50.2 51:51.1,51.2"},
      {"innerlength:60", "60:60.1,60.2"},
      {"deepgroups:70:100000", "70:70.1,70.2"},
      {"deepgroups:75:20", "75:75.1,75.2 76:76.1,-"},
      // An archive too deep to decode leaves the result without properties.
      {"deeparchive:80:1000", "80:80.1,80.2 81:81.1,81.2"},
      {"deepinfo:45:100", "45:45.1,45.2"},
      // Refused regions: the batch never reaches the agent.
      {"unsealed:41", ""},
      {"hugetlb:42", ""},
      {"overdeclared:43", ""},
      {"pastfile:44", ""},
      {"deepinfo:45:100000", ""},
      {"otherqid:46:50", ""},
      // Only the declared bytes of a large region are mapped.
      {"slack:47:64", "47:47.1,47.2"},
      // Property lists that stand for far more than their size: the info
      // is refused with its message, the result's properties alone.
      {"wideinfo:48:4000", ""},
      {"widearchive:85:4000", "85:85.1,85.2 86:86.1,86.2"},
      {"oversized:50:64", ""},
  };
  for (const auto& c : kCases) {
    const Footprint before;
    const std::string script = std::string("good:40 ") + c.word + " good:99 complete";
    EXPECT_EQ(f.run(script), Sections({kBefore, c.decoded, kFence})) << c.word;
    before.expectReturned(c.word);
  }
}

// "D:D.1,D.2,...,D.N"
std::string Row(uint32_t domain, size_t results) {
  std::string row = std::to_string(domain) + ":";
  for (size_t i = 1; i <= results; ++i)
    row += (i > 1 ? "," : "") + std::to_string(domain) + "." + std::to_string(i);
  return row;
}

TEST(HostileDaemonTest, DecodingStaysWithinItsBudget) {
  HostileAgent f;
  EXPECT_EQ(f.run("good:40 complete"), kBefore);
  const struct {
    const char* word;
    std::string decoded;  // empty: only the number of sections is checked
    long sections;
    std::chrono::milliseconds within;  // on a quiet machine it takes a few ms
  } kCases[] = {
      // 1 MiB of ordinary results (some 20,000) fits.
      {"oversized:50:1", "", 3, 10s},
      // 2,000 results with properties of a few hundred bytes that might
      // expand: their section would take the batch past its budget.
      {"bombarchive:87:2000", Row(87, 2), 3, 5s},
      // 30,000 results of an identifier alone in each of 8 sections (1.3 MiB):
      // the second section would take the batch past its budget, so it and
      // all after it are dropped.
      {"tiny:60:8:30000", "", 3, 5s},
  };
  for (const auto& c : kCases) {
    const Footprint before;
    const auto start = std::chrono::steady_clock::now();
    const std::string list = f.run(std::string("good:40 ") + c.word + " good:99 complete");
    EXPECT_LT(std::chrono::steady_clock::now() - start, c.within) << c.word;
    EXPECT_EQ(std::count(list.begin(), list.end(), ' ') + 1, c.sections) << c.word;
    EXPECT_EQ(list.rfind(kBefore, 0), 0u) << c.word;
    if (!c.decoded.empty()) {
      EXPECT_EQ(list, Sections({kBefore, c.decoded, kFence})) << c.word;
    }
    before.expectReturned(c.word);
  }
  // The lists of the cases without an exact one.
  test::OnMain([&] {
    ASSERT_EQ(f.agent->sectionCount(), 3u);
    EXPECT_EQ(f.agent->sectionAtIndex(1)->domain(), 60u);
    EXPECT_EQ(f.agent->sectionAtIndex(1)->resultsCount(), 30000u);
  });
}

TEST(HostileDaemonTest, RefusedRegionsNeverReachTheQuery) {
  TestDaemon daemon({}, "hostile", kHostile);
  DaemonClient client(daemon);
  DaemonClient::Query query = client.start(
      "good:40 unsealed:41 hugetlb:42 overdeclared:43 pastfile:44 deepinfo:45:100000 "
      "otherqid:46:20 good:99 complete");
  EXPECT_EQ(query.events(3), (Events{"results 40:2", "results 99:2", "complete"}));
  EXPECT_EQ(query.delegate->offQueue, 0);
}

TEST(HostileDaemonTest, FloodsForACancelledQueryAreDropped) {
  TestDaemon daemon({}, "hostile", kHostile);
  DaemonClient client(daemon);
  EXPECT_EQ(client.start("good:40 complete").events(2), (Events{"results 40:2", "complete"}));
  const Footprint before;
  DaemonClient::Query cancelled = client.start("good:40 awaitclose flood:41:2000");
  EXPECT_EQ(cancelled.events(1), (Events{"results 40:2"}));
  client.connection->cancelQuery(cancelled.token);
  DaemonClient::Query next = client.start("good:50 flood:51:20 complete");
  daemon.waitFor("script-done", 3);
  // The daemon's answer comes after every batch it sent before it.
  auto fence = std::make_shared<std::promise<void>>();
  client.connection->retrieveFirstTimeExperienceTextWithReply(
      [fence](const Value&) { fence->set_value(); });
  ASSERT_EQ(fence->get_future().wait_for(test::kTimeout), std::future_status::ready);

  EXPECT_EQ(next.events(22).size(), 22u);
  EXPECT_EQ(next.delegate->events.items().back(), "complete");
  EXPECT_EQ(cancelled.delegate->events.items(), (Events{"results 40:2"}));
  // Readers still queued for the token's delegate hold their regions.
  next.token->queue()->sync([] {});
  before.expectReturned("flood");
}

TEST(HostileDaemonTest, TenThousandSectionsInOneBatch) {
  HostileAgent f;
  EXPECT_EQ(f.run("good:40 complete"), kBefore);
  const Footprint before;
  const auto start = std::chrono::steady_clock::now();
  const std::string list = f.run("sections:1000:10000 complete");
  EXPECT_LT(std::chrono::steady_clock::now() - start, test::kTimeout);
  EXPECT_EQ(std::count(list.begin(), list.end(), ' '), 9999);
  EXPECT_EQ(list.substr(0, 12), "1000:1000.1 ");
  EXPECT_EQ(list.substr(list.size() - 13), "10999:10999.1");
  before.expectReturned("10,000 sections");
}

}  // namespace
}  // namespace kx
