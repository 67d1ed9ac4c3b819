// KXSearchAgentDelegate: the receiver of a search agent's posts, called on
// the main queue with the agent.
//
// Both operations are optional. A delegate says which ones it answers
// through `respondsTo`; the agent asks before every call, and for a delegate
// that does not answer searchAgentUpdatedResults it does not even prepare
// an update.
#pragma once

#include <memory>

#include "kx/export.h"

class KXSearchAgent;

class KX_EXPORT KXSearchAgentDelegate {
 public:
  enum class Operation { UpdatedResults, ClearedResults };

  virtual ~KXSearchAgentDelegate() = default;

  virtual bool respondsTo(Operation operation) const = 0;
  // The published sections changed; read them from the agent.
  virtual void searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>& /*agent*/) {}
  // The agent dropped its results (a blank text, a preference change...).
  virtual void searchAgentClearedResults(const std::shared_ptr<KXSearchAgent>& /*agent*/) {}
};
