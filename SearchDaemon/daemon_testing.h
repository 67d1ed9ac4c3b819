// Test-only support for the daemon-client tests: a delegate that records a
// token's events as text, and the scriptable test daemon (tests/
// test_daemon.cpp) run under the service launcher, with the record of what
// it received.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kx/KXDaemonConnection.h"
#include "kx/KXDaemonQueryToken.h"
#include "ipc/dpq_testing.h"
#include "kx/KXSearchResultSection.h"
#include "platform/process/child_process.h"
#include "kx/queue.h"
#include "tests/support/test_environment.h"
#include "kx/KXSearchResultDeserializer.h"

namespace kx::test {

// Records a token's events, in order, as "reset", "complete",
// "error <domain> <code>" and "results <domain>:<count> ..." (one entry per
// section read from the batch). Counts calls made off its queue.
class RecordingDelegate : public KXDaemonQueryDelegate {
 public:
  explicit RecordingDelegate(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}

  void searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>&) override {
    add("reset");
  }
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&,
                         const std::shared_ptr<KXSearchResultDeserializer>& results) override {
    std::string text = "results";
    for (;;) {
      KXSearchResultSection section;
      if (!results->deserializeNextSection(&section)) break;
      text += " " + std::to_string(section.domain()) + ":" + std::to_string(section.resultsCount());
    }
    add(text);
  }
  void searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>&) override {
    add("complete");
  }
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&, const Error& error) override {
    add("error " + error.domain + " " + std::to_string(error.code) +
        (error.userInfo ? " with user info" : ""));
  }

  Inbox<std::string> events;
  std::atomic<int> offQueue{0};

 private:
  void add(std::string event) {
    if (!queue_->isCurrent()) ++offQueue;
    events.add(std::move(event));
  }
  std::shared_ptr<Queue> queue_;
};

// One line of the daemon's record.
struct Received {
  pid_t pid = 0;
  std::string name;  // "start" for a daemon start
  std::set<std::string> keys;
  std::string details;
};

// The test daemon (or another helper `program` that takes --service and
// --log and writes the same record) serving `service` under kx-launch,
// which restarts it on the next connection after it died. Stopped (with the
// launcher) when destroyed.
class TestDaemon {
 public:
  explicit TestDaemon(std::vector<std::string> flags = {}, std::string service = "searchd",
                      const std::string& program = "test_daemon")
      : service_(std::move(service)), log_(NewLogPath(service_)) {
    std::vector<std::string> args = {"--name", service_, "--", HelperPath(program),
                                     "--service", service_, "--log", log_};
    args.insert(args.end(), flags.begin(), flags.end());
    launcher_ = ChildProcess::Spawn(HelperPath("tools/kx-launch/kx-launch"), args);
    EXPECT_TRUE(launcher_.has_value());
    WaitForServiceSocket(service_);
  }

  const std::string& service() const { return service_; }

  std::vector<Received> received() const {
    std::vector<Received> lines;
    std::ifstream file(log_, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // A line still being written is left for the next look.
    std::stringstream in(text.substr(0, text.rfind('\n') + 1));
    for (std::string line; std::getline(in, line);) {
      std::vector<std::string> fields;
      std::stringstream split(line);
      for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
      if (fields.size() < 2) continue;
      Received r;
      r.pid = static_cast<pid_t>(std::stol(fields[0]));
      r.name = fields[1];
      if (fields.size() > 2) {
        std::stringstream keys(fields[2]);
        for (std::string key; std::getline(keys, key, ',');) r.keys.insert(key);
      }
      if (fields.size() > 3) r.details = fields[3];
      lines.push_back(std::move(r));
    }
    return lines;
  }

  // The messages named `name` received so far.
  std::vector<Received> received(const std::string& name) const {
    std::vector<Received> out;
    for (Received& r : received())
      if (r.name == name) out.push_back(std::move(r));
    return out;
  }

  // Waits until `count` messages named `name` have been received.
  std::vector<Received> waitFor(const std::string& name, size_t count) const {
    for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
         std::chrono::steady_clock::now() < deadline;) {
      std::vector<Received> found = received(name);
      if (found.size() >= count) return found;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ADD_FAILURE() << "daemon did not receive " << count << " " << name;
    return received(name);
  }

  // The pid of the daemon that started last.
  pid_t pid() const {
    std::vector<Received> starts = received("start");
    return starts.empty() ? 0 : starts.back().pid;
  }

  // Kills the running daemon; the launcher restarts it on the next
  // connection.
  void kill() const {
    const pid_t daemon = pid();
    ASSERT_GT(daemon, 0);
    ASSERT_EQ(::kill(daemon, SIGKILL), 0);
  }

 private:
  // A record of its own for every daemon a test process starts.
  static std::string NewLogPath(const std::string& service) {
    static std::atomic<int> started{0};
    return TestRoot() + "/" + service + "." + std::to_string(++started) + ".received";
  }

  std::string service_;
  std::string log_;
  std::optional<ChildProcess> launcher_;
};

// A client of a test daemon whose query delegates run on their own queues.
struct DaemonClient {
  explicit DaemonClient(const TestDaemon& daemon)
      : connection(KXDaemonConnection::initWithDaemonName(daemon.service())) {}

  struct Query {
    std::shared_ptr<KXDaemonQueryToken> token;
    std::shared_ptr<RecordingDelegate> delegate;
    // Waits for `count` events and returns them all.
    std::vector<std::string> events(size_t count) {
      EXPECT_TRUE(delegate->events.waitFor(count)) << "query " << token->queryID();
      return delegate->events.items();
    }
  };

  // Opens `script` (a query text that the test daemons run as a script) the
  // way the search agent does: on the delegate's queue, setting the
  // delegate in the same job.
  Query start(const std::string& script, const kx::Value& response = kx::Value(),
              bool isStable = false) {
    auto queue = Queue::Create("test.query");
    Query query{nullptr, std::make_shared<RecordingDelegate>(queue)};
    auto search = KXSearchQuery::initWithSearchString(script, "en_US", std::nullopt,
                                                      KXSearchQuery::DomainList{2, 4},
                                                      KXSearchQuery::BundleList{});
    queue->sync([&] {
      query.token = connection->startQuery(search, response, isStable, queue);
      query.token->setDelegate(query.delegate);
    });
    return query;
  }

  std::shared_ptr<KXDaemonConnection> connection;
};

}  // namespace kx::test
