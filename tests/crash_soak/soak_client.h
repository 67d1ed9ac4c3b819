// The application side of the soak: a search agent on the shared daemon
// connection, typed into one character at a time from the thread that also
// drains the main queue, with a delegate that keeps the agent's last post.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kx/KXSearchAgent.h"
#include "kx/KXSearchAgentDelegate.h"
#include "tests/crash_soak/answers.h"

namespace kx::soak {

struct Post {
  uint32_t seqNo = 0;  // the agent's accepted-text count when it was posted
  bool cleared = false;
  Answer answer;
};

class SoakClient : public KXSearchAgentDelegate, public std::enable_shared_from_this<SoakClient> {
 public:
  static std::shared_ptr<SoakClient> Create();

  // Types `text` character by character (UTF-8 sequences whole), draining
  // the main queue after each; `beforeKeystroke(i)` runs before the i-th
  // (counted from 0).
  void type(const std::string& text, const std::function<void(size_t)>& beforeKeystroke);
  // Drains the main queue until the agent's query completed and its final
  // post was handled, or until `giveUp` returns true; false then.
  bool settle(const std::function<bool()>& giveUp);
  // Runs the main queue for `duration`.
  void idle(std::chrono::milliseconds duration);

  const KXSearchAgent& agent() const { return *agent_; }
  const Post& lastPost() const { return lastPost_; }
  size_t postCount() const { return postCount_; }
  // The id of the agent's current query (read on its queue).
  uint32_t currentQueryID() const;

  bool respondsTo(Operation) const override { return true; }
  void searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>& agent) override;
  void searchAgentClearedResults(const std::shared_ptr<KXSearchAgent>& agent) override;

 private:
  void record(const KXSearchAgent& agent, bool cleared);

  std::shared_ptr<KXSearchAgent> agent_;
  // Main queue only.
  Post lastPost_;
  size_t postCount_ = 0;
};

}  // namespace kx::soak
