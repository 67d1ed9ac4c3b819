#include "tests/crash_soak/answers.h"

#include "kx/KXDaemonConnection.h"
#include "kx/KXDaemonQueryToken.h"
#include "kx/KXSearchQuery.h"
#include "kx/queue.h"
#include "searchd/searchd_testing.h"

namespace kx::soak {
namespace {

// The agent asks for this many results per domain.
constexpr int64_t kAgentMaxCount = 13;

void Append(Answer& answer, uint32_t domain, const std::vector<std::shared_ptr<KXSearchResult>>& results) {
  std::vector<std::string>& entries = answer[domain];
  for (const auto& result : results)
    entries.push_back(result->title().value_or("") + " #" + std::to_string(result->identifier()));
}

}  // namespace

Answer AnswerOf(const std::vector<std::shared_ptr<KXSearchResultSection>>& sections) {
  Answer answer;
  for (const auto& section : sections)
    if (section) Append(answer, section->domain(), section->results());
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
  auto collector = std::make_shared<test::CollectingDelegate>();
  auto query = KXSearchQuery::initWithSearchString(text, std::nullopt, std::nullopt, domains,
                                                   std::vector<std::string>{});
  query->setMaxCount(kAgentMaxCount);
  std::shared_ptr<KXDaemonQueryToken> token;
  // Delegate set before any message can reach the token's queue.
  queue->sync([&] {
    token = connection->startQuery(query, Value(), false, queue);
    token->setDelegate(collector);
  });
  const bool complete = collector->events.waitFor(1, timeout);
  connection->cancelQuery(token);
  queue->sync([] {});
  if (!complete) return std::nullopt;
  Answer answer;
  for (const test::SeenSection& section : collector->sections()) Append(answer, section.domain, section.results);
  return answer;
}

}  // namespace kx::soak
