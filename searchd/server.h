// The daemon's side of the daemon connection: one handler per request of
// the client's message vocabulary, on a KXDPQServer.
//
// Queries. "OpenQuery" is answered at once with an empty reply and the
// query goes to the worker pool. Each running query is filed under its
// peer and "QID"; "CloseQuery" (or the peer going away) marks it cancelled,
// which interrupts its SQLite statement at the next progress check. A
// query's batches are sent under its own lock and only while it is not
// cancelled, and "CloseQuery" takes the same lock: once "CloseQuery" has
// been handled, nothing more is sent for that query.
//
// Small requests, answered on the peer's event queue:
//   "Activate"                  empty reply
//   "Deactivate", "Preheat"     nothing (Preheat warms the calculator)
//   "RequestFTE"                {"FTE": a one-line description of the search}
//   "RequestVantleParameters"   {"VANPARAM": {"enabled": false}}: there is no
//                               server search behind this daemon
//   "StartRecordUpdates", "RecordUpdateRequest", "EndRecordUpdates"
//                               logged at level 7: this daemon has no
//                               application-provided records to refresh
//   "UpdateList"                empty reply: no updates
//   "GetResultImage"            {"UA": PNG data} or an empty reply
//   "RequestCardData"           {"R": the coded result} or an empty reply
//   "SendFeedback"              see feedback_log.h; no reply
// Unknown names are logged at level 4 and get an empty reply when one is
// awaited.
//
// Bounds per client: a request beyond the limits of query_request.h, or an
// "OpenQuery" while kMaxOpenQueriesPerClient of the client's queries are
// still queued or running, is refused with "SearchError" (ERR 2) and a log
// line; it never reaches a worker. What waits to be sent to a client that
// does not read is bounded by the message connection, which closes it.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kx/KXDPQServer.h"
#include "searchd/feedback_log.h"
#include "searchd/index.h"
#include "searchd/query_request.h"
#include "searchd/request_log.h"
#include "searchd/worker_pool.h"

namespace kx::searchd {

struct ServerOptions {
  std::string serviceName = "com.orvex.searchd";
  std::string indexPath;
  std::string feedbackPath;
  size_t workers = 2;
  // A pause before every batch after the first; lets tests cancel a query
  // while it still has batches to send.
  std::chrono::milliseconds batchPause{0};
  // Where to trace query requests (see request_log.h); empty for none.
  std::string requestLogPath;
};

// Queries of one client that may be queued or running at once. The agent
// keeps one open; a re-sent query replaces its earlier run.
inline constexpr size_t kMaxOpenQueriesPerClient = 32;

class SearchServer {
 public:
  // Opens the index (its writer connection is shared with the caller's
  // indexer through `writer`, used under `writerMutex`).
  SearchServer(ServerOptions options, Index& writer, std::mutex& writerMutex);
  ~SearchServer();

  // Domains to search, cheapest first; call after indexing.
  void setDomainOrder(std::vector<uint32_t> order);
  // Registers the handlers and takes the listening socket.
  void start();
  // Ignores further requests and waits until every running query has sent
  // its last batch.
  void drain();

  // Queries queued or running now (for tests).
  size_t runningQueryCount();
  // The listener whose handlers serve the requests; null before `start`.
  // Tests and fuzz targets call its handlers directly.
  const std::shared_ptr<KXDPQServer>& listener() const { return listener_; }

 private:
  struct RunningQuery;
  using Peer = std::shared_ptr<KXDPQConnection>;
  using Message = std::shared_ptr<KXDPQMessage>;
  using QueryKey = std::pair<const KXDPQConnection*, uint32_t>;

  void openQuery(const Peer& peer, const Message& message);
  void closeQuery(const Peer& peer, const Message& message);
  void peerGone(const Peer& peer);
  void runQuery(Index& index, const Peer& peer, QueryRequest request,
                const std::shared_ptr<RunningQuery>& query);
  void finished(const Peer& peer, uint32_t qid, const std::shared_ptr<RunningQuery>& query);
  // Files `query`; false (nothing filed) when the client is at its bound.
  bool fileQuery(const Peer& peer, uint32_t qid, const std::shared_ptr<RunningQuery>& query);
  void handleFeedback(const Message& message);
  Value cardData(const Value& info);
  Value resultImage(const Value& info);
  std::vector<uint32_t> domainOrder();

  ServerOptions options_;
  Index& writer_;
  std::mutex& writerMutex_;
  FeedbackLog feedbackLog_;
  RequestLog requestLog_;
  std::unique_ptr<WorkerPool> workers_;
  std::shared_ptr<KXDPQServer> listener_;
  // A reader for the small requests, used under lookupMutex_.
  std::mutex lookupMutex_;
  std::unique_ptr<Index> lookup_;

  std::mutex mu_;
  std::map<QueryKey, std::shared_ptr<RunningQuery>> running_;  // guarded by mu_
  std::vector<uint32_t> domainOrder_;                          // guarded by mu_
  const std::string session_;  // names this daemon run in feedback query ids
  std::atomic<uint64_t> querySerial_{0};
};

}  // namespace kx::searchd
