// Test-only support for the search agent: a delegate that records what the
// main queue hands it, a main queue drained by the test thread, the test
// daemon serving the default daemon name, and short descriptions of
// section lists.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SearchDaemon/daemon_testing.h"
#include "kx/KXSearchAgent.h"
#include "kx/main_loop.h"
#include "kx/queue.h"

namespace kx::test {

// "D:t1,t2 D:t3" — domain and result titles of each section.
inline std::string Describe(const std::vector<std::shared_ptr<KXSearchResultSection>>& sections) {
  std::string out;
  for (const auto& section : sections) {
    if (!out.empty()) out += ' ';
    out += std::to_string(section->domain()) + ":";
    bool first = true;
    for (const auto& result : section->results()) {
      out += (first ? "" : ",") + result->title().value_or("-");
      first = false;
    }
  }
  return out;
}

// Drains the main queue on the test thread until `done` holds; false after
// the time-out.
inline bool DrainUntil(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = kTimeout) {
  for (auto deadline = std::chrono::steady_clock::now() + timeout;;) {
    main_loop::drain();
    if (done()) return true;
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Runs `work` on the main queue (drained here) and returns once it ran.
inline void OnMain(const std::function<void()>& work) {
  auto ran = std::make_shared<std::atomic<bool>>(false);
  Queue::Main()->async([work, ran] {
    work();
    ran->store(true);
  });
  EXPECT_TRUE(DrainUntil([ran] { return ran->load(); }));
}

// Records each delegate call, on the main queue, with the agent's sequence
// number and published list at that moment.
class RecordingAgentDelegate : public KXSearchAgentDelegate {
 public:
  struct Post {
    std::string kind;  // "updated" or "cleared"
    uint32_t seqNo;
    std::string sections;
  };

  explicit RecordingAgentDelegate(bool answersUpdates = true, bool answersClears = true)
      : answersUpdates_(answersUpdates), answersClears_(answersClears) {}

  bool respondsTo(Operation operation) const override {
    return operation == Operation::UpdatedResults ? answersUpdates_ : answersClears_;
  }
  void searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>& agent) override {
    record("updated", *agent);
  }
  void searchAgentClearedResults(const std::shared_ptr<KXSearchAgent>& agent) override {
    record("cleared", *agent);
  }

  std::vector<Post> posts() const {
    std::lock_guard lock(mu_);
    return posts_;
  }
  size_t count() const {
    std::lock_guard lock(mu_);
    return posts_.size();
  }
  void reset() {
    std::lock_guard lock(mu_);
    posts_.clear();
  }
  // The last post's list; "" when none.
  std::string lastSections() const {
    std::lock_guard lock(mu_);
    return posts_.empty() ? "" : posts_.back().sections;
  }
  std::atomic<int> offMain{0};

 private:
  void record(const char* kind, const KXSearchAgent& agent) {
    if (!Queue::Main()->isCurrent()) ++offMain;
    std::lock_guard lock(mu_);
    posts_.push_back({kind, agent.currentQuerySeqNo(), Describe(agent.sections())});
  }
  const bool answersUpdates_;
  const bool answersClears_;
  mutable std::mutex mu_;
  std::vector<Post> posts_;
};

// An agent on the test daemon (serving the default daemon name), its
// delegate, and the creation-time clear already drained away.
struct AgentFixture {
  explicit AgentFixture(std::vector<std::string> daemonFlags = {"--per-query-scripts"},
                        int32_t level = 0, uint32_t options = 0,
                        std::shared_ptr<RecordingAgentDelegate> d = nullptr,
                        const std::string& daemonProgram = "test_daemon")
      : daemon(std::move(daemonFlags), std::string(KXDaemonConnection::kDefaultDaemonName),
               daemonProgram),
        delegate(d ? std::move(d) : std::make_shared<RecordingAgentDelegate>()) {
    agent = KXSearchAgent::initWithZKWLevel(level, options);
    agent->setDelegate(delegate);
    settle();
    delegate->reset();
  }

  // Waits until the query queue has run what was queued so far, then
  // drains the main queue.
  void settle() {
    agent->queryProcessor()->sync([] {});
    main_loop::drain();
  }

  // Types `text` and waits for a post whose list matches `sections`.
  bool waitForSections(const std::string& sections) {
    return DrainUntil([&] { return delegate->lastSections() == sections; });
  }

  TestDaemon daemon;
  std::shared_ptr<RecordingAgentDelegate> delegate;
  std::shared_ptr<KXSearchAgent> agent;
};

}  // namespace kx::test
