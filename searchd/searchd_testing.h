// Test support for the daemon: kx-searchd over the sample data under the
// service launcher, and a client that runs a query through the library's
// daemon connection and collects what the delegate receives.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ipc/dpq_testing.h"
#include "kx/KXDaemonConnection.h"
#include "kx/KXDaemonQueryToken.h"
#include "kx/KXSearchQuery.h"
#include "kx/KXSearchResultDeserializer.h"
#include "kx/KXSearchResultSection.h"
#include "platform/process/child_process.h"
#include "tests/support/test_environment.h"

namespace kx::test {

// One received section: its domain and results.
struct SeenSection {
  uint32_t domain = 0;
  std::vector<std::shared_ptr<KXSearchResult>> results;
  std::vector<std::string> titles() const {
    std::vector<std::string> t;
    for (const auto& r : results) t.push_back(r->title().value_or(""));
    return t;
  }
};

// Collects every batch of one query, and whether it completed.
class CollectingDelegate : public KXDaemonQueryDelegate {
 public:
  void searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>&) override {
    std::lock_guard lock(mu_);
    sections_.clear();  // a restarted query starts over
  }
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&,
                         const std::shared_ptr<KXSearchResultDeserializer>& results) override {
    std::lock_guard lock(mu_);
    for (;;) {
      KXSearchResultSection section;
      if (!results->deserializeNextSection(&section)) break;
      sections_.push_back({section.domain(), section.results()});
    }
    ++batches_;
  }
  void searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>&) override {
    events.add("complete");
  }
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&, const Error& error) override {
    events.add("error " + std::to_string(error.code));
  }
  std::vector<SeenSection> sections() {
    std::lock_guard lock(mu_);
    return sections_;
  }
  Inbox<std::string> events;

 private:
  std::mutex mu_;
  std::vector<SeenSection> sections_;
  size_t batches_ = 0;
};

struct QueryOptions {
  std::optional<std::string> language;
  std::vector<uint32_t> domains = {2, 4, 5, 19, 22, 24, 25};
  std::vector<std::string> disabledBundles;
  int64_t maxCount = 0;
};

// An executable of tools/ in this build tree.
inline std::string BuiltTool(const std::string& name) {
  return std::string(KX_BUILD_DIR) + "/tools/" + name + "/" + name;
}

// kx-searchd serving `service` under kx-launch over a copy of examples/data
// (the daemon writes document identifiers into the files it indexes), with
// the copy and its index in this test's private tree.
class Searchd {
 public:
  explicit Searchd(std::string service = "searchd-test")
      : service_(std::move(service)), dataRoot_(TestRoot() + "/" + service_ + ".data") {
    const std::string indexDir = TestRoot() + "/" + service_ + ".index";
    std::filesystem::copy(KX_EXAMPLES_DATA, dataRoot_, std::filesystem::copy_options::recursive |
                                                           std::filesystem::copy_options::skip_existing);
    launcher_ = ChildProcess::Spawn(
        BuiltTool("kx-launch"),
        {"--name", service_, "--", BuiltTool("kx-searchd"), "--service", service_,
         "--data-root", dataRoot_, "--index", indexDir});
    EXPECT_TRUE(launcher_.has_value());
    WaitForServiceSocket(service_);
    connection_ = KXDaemonConnection::initWithDaemonName(service_);
  }

  const std::shared_ptr<KXDaemonConnection>& connection() const { return connection_; }
  // The daemon's --data-root, which the test may change while it runs.
  const std::string& dataRoot() const { return dataRoot_; }

  // Starts a query; the delegate collects its batches.
  std::pair<std::shared_ptr<KXDaemonQueryToken>, std::shared_ptr<CollectingDelegate>> start(
      const std::string& text, const QueryOptions& options = {}) {
    auto queue = Queue::Create("test.searchd.query");
    auto delegate = std::make_shared<CollectingDelegate>();
    auto query = KXSearchQuery::initWithSearchString(text, options.language, std::nullopt,
                                                     options.domains, options.disabledBundles);
    if (options.maxCount > 0) query->setMaxCount(options.maxCount);
    std::shared_ptr<KXDaemonQueryToken> token;
    queue->sync([&] {
      token = connection_->startQuery(query, Value(), false, queue);
      token->setDelegate(delegate);
    });
    return {token, delegate};
  }

  // Runs a query to completion and returns its sections.
  std::vector<SeenSection> search(const std::string& text, const QueryOptions& options = {}) {
    auto [token, delegate] = start(text, options);
    EXPECT_TRUE(delegate->events.waitFor(1)) << "no completion for \"" << text << "\"";
    connection_->cancelQuery(token);
    return delegate->sections();
  }

  // The pid of the daemon the launcher runs now, 0 when none.
  pid_t daemonPid() const {
    std::ifstream children("/proc/" + std::to_string(launcher_->pid()) + "/task/" +
                           std::to_string(launcher_->pid()) + "/children");
    pid_t pid = 0;
    children >> pid;
    return pid;
  }

 private:
  std::string service_;
  std::string dataRoot_;
  std::optional<ChildProcess> launcher_;
  std::shared_ptr<KXDaemonConnection> connection_;
};

// The titles of the sections of `domain`, in order.
inline std::vector<std::string> TitlesIn(const std::vector<SeenSection>& sections, uint32_t domain) {
  std::vector<std::string> titles;
  for (const SeenSection& s : sections)
    if (s.domain == domain)
      for (const std::string& t : s.titles()) titles.push_back(t);
  return titles;
}

}  // namespace kx::test
