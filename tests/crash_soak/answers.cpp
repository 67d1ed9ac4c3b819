#include "tests/crash_soak/answers.h"

#include <condition_variable>
#include <mutex>

#include "kx/KXDaemonConnection.h"
#include "kx/KXDaemonQueryToken.h"
#include "kx/KXSearchQuery.h"
#include "kx/KXSearchResultDeserializer.h"
#include "kx/queue.h"

namespace kx::soak {
namespace {

// The agent asks for this many results per domain.
constexpr int64_t kAgentMaxCount = 13;

void Append(Answer& answer, const KXSearchResultSection& section) {
  std::vector<std::string>& entries = answer[section.domain()];
  for (const auto& result : section.results())
    entries.push_back(result->title().value_or("") + " #" + std::to_string(result->identifier()));
}

class Collector : public KXDaemonQueryDelegate {
 public:
  void searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>&) override {
    std::lock_guard lock(mu_);
    answer_.clear();
  }
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&,
                         const std::shared_ptr<KXSearchResultDeserializer>& results) override {
    std::lock_guard lock(mu_);
    for (;;) {
      KXSearchResultSection section;
      if (!results->deserializeNextSection(&section)) break;
      Append(answer_, section);
    }
  }
  void searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>&) override {
    std::lock_guard lock(mu_);
    complete_ = true;
    cv_.notify_all();
  }
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>&, const Error&) override {}

  std::optional<Answer> wait(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mu_);
    if (!cv_.wait_for(lock, timeout, [&] { return complete_; })) return std::nullopt;
    return answer_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  Answer answer_;
  bool complete_ = false;
};

}  // namespace

Answer AnswerOf(const std::vector<std::shared_ptr<KXSearchResultSection>>& sections) {
  Answer answer;
  for (const auto& section : sections)
    if (section) Append(answer, *section);
  return answer;
}

std::string Describe(const Answer& answer) {
  std::string text;
  for (const auto& [domain, entries] : answer) {
    text += "  domain " + std::to_string(domain) + ":";
    for (const std::string& e : entries) text += " [" + e + "]";
    text += "\n";
  }
  return text.empty() ? "  (nothing)\n" : text;
}

bool IsPartOf(const Answer& part, const Answer& whole) {
  for (const auto& [domain, entries] : part) {
    auto it = whole.find(domain);
    const size_t available = it == whole.end() ? 0 : it->second.size();
    if (entries.size() > available) return false;
    for (size_t i = 0; i < entries.size(); ++i)
      if (entries[i] != it->second[i]) return false;
  }
  return true;
}

std::optional<Answer> FreshAnswer(const std::string& service, const std::string& text,
                                  const std::vector<uint32_t>& domains,
                                  std::chrono::milliseconds timeout) {
  auto connection = KXDaemonConnection::initWithDaemonName(service);
  auto queue = Queue::Create("soak.fresh-answer");
  auto collector = std::make_shared<Collector>();
  auto query = KXSearchQuery::initWithSearchString(text, std::nullopt, std::nullopt, domains,
                                                   std::vector<std::string>{});
  query->setMaxCount(kAgentMaxCount);
  std::shared_ptr<KXDaemonQueryToken> token;
  // Delegate set before any message can reach the token's queue.
  queue->sync([&] {
    token = connection->startQuery(query, Value(), false, queue);
    token->setDelegate(collector);
  });
  std::optional<Answer> answer = collector->wait(timeout);
  connection->cancelQuery(token);
  queue->sync([] {});
  return answer;
}

}  // namespace kx::soak
