// KXDaemonQueryToken: one query while the search daemon works on it.
//
// KXDaemonConnection makes a token per opened query, files it under its id
// and hands it every daemon message that carries that id ("QID"). The token
// decodes the message on the connection's queue and reports to its delegate
// on the queue the caller chose:
//   "SearchResults"  a packed result stream in shared memory ->
//                    searchDaemonQuery(token, deserializer)
//   "SearchReset"    -> searchDaemonQueryReset(token)
//   "SearchComplete" info "FBQ", "WFBQ" (optional strings) -> queryFinished,
//                    fbq and web_fbq replaced, then searchDaemonQueryCompleted
//   "SearchError"    info "ERR" (code, 0 when absent) ->
//                    searchDaemonQuery(token, error in domain "SearchError")
//
// Invariants:
// - Token ids come from one process-wide 32-bit counter: the first token of
//   a process has id 1, consecutive tokens have consecutive ids, and ids
//   wrap after 2^32 tokens.
// - Delegate calls run on the token's queue in the order the messages
//   arrived. The delegate is held weakly and fetched when the call runs, so
//   a delegate that went away (or was replaced) meanwhile hears nothing.
// - The result reader is made at once on the connection's queue and takes
//   the received mapping over from the message; it unmaps it when the last
//   holder lets go. A message the token ignores keeps nothing mapped.
//
// Threads: handleMessage runs on the daemon connection's queue. queryFinished,
// fbq, web_fbq and the delegate may be read and written from any thread.
#pragma once

#include "kx/export.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "kx/KXSearchQuery.h"
#include "kx/value.h"
#include "kx/queue.h"

class KXDPQMessage;
class KXDaemonQueryToken;
class KXSearchResultDeserializer;

// The receiver of a token's events, called on the token's queue.
class KX_EXPORT KXDaemonQueryDelegate {
 public:
  virtual ~KXDaemonQueryDelegate() = default;
  // The daemon restarted the query, or the client is re-sending it after the
  // daemon restarted: results delivered so far are void.
  virtual void searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>& token) = 0;
  // A batch of results arrived; read it section by section.
  virtual void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>& token,
                                 const std::shared_ptr<KXSearchResultDeserializer>& results) = 0;
  // The daemon finished the query.
  virtual void searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>& token) = 0;
  // The daemon reported a failure; the query stays open.
  virtual void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>& token,
                                 const kx::Error& error) = 0;
};

class KX_EXPORT KXDaemonQueryToken : public kx::Object {
  struct Passkey {};

 public:
  // Draws the next id; delegate calls go to `queue`.
  static std::shared_ptr<KXDaemonQueryToken> initWithQuery(std::shared_ptr<KXSearchQuery> query,
                                                           std::shared_ptr<kx::Queue> queue);
  // The same on the main queue.
  static std::shared_ptr<KXDaemonQueryToken> initWithQuery(std::shared_ptr<KXSearchQuery> query);

  KXDaemonQueryToken(Passkey, std::shared_ptr<KXSearchQuery> query,
                     std::shared_ptr<kx::Queue> queue);

  // A token is immutable for copying: the copy is the token itself.
  std::shared_ptr<KXDaemonQueryToken> copy();

  // Decodes one daemon message; see the table above. Messages for another
  // id (a missing "QID" reads as 0) and other names are ignored.
  void handleMessage(const std::shared_ptr<KXDPQMessage>& message);

  uint32_t queryID() const { return queryID_; }
  const std::shared_ptr<KXSearchQuery>& query() const { return query_; }
  const std::shared_ptr<kx::Queue>& queue() const { return queue_; }

  std::shared_ptr<KXDaemonQueryDelegate> delegate() const;
  void setDelegate(std::weak_ptr<KXDaemonQueryDelegate> delegate);

  bool queryFinished() const { return queryFinished_.load(std::memory_order_acquire); }
  void setQueryFinished(bool finished) {
    queryFinished_.store(finished, std::memory_order_release);
  }
  // The feedback query identifiers of the last "SearchComplete"; nullopt
  // when it carried none (or before completion).
  std::optional<std::string> fbq() const;
  std::optional<std::string> web_fbq() const;

  std::string className() const override { return "KXDaemonQueryToken"; }

 private:
  std::shared_ptr<KXDaemonQueryToken> self();
  // Runs `call` with the delegate on the token's queue, if there is one by
  // then; the token stays alive until the call has run.
  template <class Call>
  void callDelegate(Call call);
  void handleResults(KXDPQMessage& message);
  void handleComplete(const kx::Value& info);

  const uint32_t queryID_;
  const std::shared_ptr<kx::Queue> queue_;
  const std::shared_ptr<KXSearchQuery> query_;
  std::atomic<bool> queryFinished_{false};

  mutable std::mutex mu_;
  // Guarded by mu_.
  std::weak_ptr<KXDaemonQueryDelegate> delegate_;
  std::optional<std::string> fbq_;
  std::optional<std::string> webFbq_;
};
