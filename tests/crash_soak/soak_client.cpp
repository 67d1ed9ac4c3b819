#include "tests/crash_soak/soak_client.h"

#include "kx/main_loop.h"
#include "kx/queue.h"

namespace kx::soak {
namespace {

size_t Utf8Length(unsigned char lead) {
  if (lead >= 0xF0) return 4;
  if (lead >= 0xE0) return 3;
  if (lead >= 0xC0) return 2;
  return 1;
}

}  // namespace

std::shared_ptr<SoakClient> SoakClient::Create() {
  auto client = std::make_shared<SoakClient>();
  client->agent_ = KXSearchAgent::init();
  client->agent_->setDelegate(client->weak_from_this());
  // The creation-time work (preferences, a clear) is not part of the soak.
  client->agent_->queryProcessor()->sync([] {});
  main_loop::drain();
  return client;
}

void SoakClient::type(const std::string& text, const std::function<void(size_t)>& beforeKeystroke) {
  size_t keystroke = 0;
  for (size_t end = 0; end < text.size(); ++keystroke) {
    end = std::min(text.size(), end + Utf8Length(static_cast<unsigned char>(text[end])));
    if (beforeKeystroke) beforeKeystroke(keystroke);
    agent_->setQueryString(text.substr(0, end), std::nullopt, 0, false);
    main_loop::drain();
  }
}

bool SoakClient::settle(const std::function<bool()>& giveUp) {
  // The query queue first takes the last text, which resets the completion.
  agent_->queryProcessor()->sync([] {});
  while (!agent_->queryComplete()) {
    if (giveUp()) return false;
    main_loop::runFor(std::chrono::milliseconds(2));
  }
  // The completion hands its update over before it returns.
  agent_->queryProcessor()->sync([] {});
  main_loop::drain();
  return true;
}

void SoakClient::idle(std::chrono::milliseconds duration) { main_loop::runFor(duration); }

uint32_t SoakClient::currentQueryID() const {
  uint32_t id = 0;
  agent_->queryProcessor()->sync([&] { id = agent_->queryId().value_or(0); });
  return id;
}

void SoakClient::searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>& agent) {
  record(*agent, false);
}

void SoakClient::searchAgentClearedResults(const std::shared_ptr<KXSearchAgent>& agent) {
  record(*agent, true);
}

void SoakClient::record(const KXSearchAgent& agent, bool cleared) {
  lastPost_ = {agent.currentQuerySeqNo(), cleared, AnswerOf(agent.sections())};
  ++postCount_;
}

}  // namespace kx::soak
