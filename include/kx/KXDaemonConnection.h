// KXDaemonConnection: the client's one link to the search daemon
// ("com.orvex.searchd").
//
// Turns each request into a named KXDPQMessage with an info dictionary,
// keeps the table of running queries so that the daemon's per-query
// messages reach the right KXDaemonQueryToken, and, when the daemon goes
// away, reconnects on the next use and re-sends every unfinished query once.
//
// Requests and their info keys (numbers boxed in the width given):
//   "OpenQuery"      see OpenQueryInfo; reply expected, ignored
//   "CloseQuery"     "QID" (int32); reply expected, ignored
//   "Activate"       reply expected, ignored
//   "Deactivate", "Preheat"                               no reply
//   "RequestFTE"     reply "FTE" -> callback
//   "RequestVantleParameters"  reply "VANPARAM" -> callback
//   "StartRecordUpdates", "EndRecordUpdates"  "DI", "CAT"  no reply
//   "RecordUpdateRequest"  "DI", "CAT", "UA" (identifiers)  no reply
//   "GetResultImage" "ID" (uint64) or "IDI" (string), "D" (int32),
//                    "ImageWidth", "ImageHeight" (float); reply "UA" (data)
//   "RequestCardData"  "URL" (the result's card URL); reply "R" (one coded
//                    KXSearchResult)
//   "UpdateList"     "DI", "CAT"; any reply info means updates exist
//   "SendFeedback"   "FB" (the record in a plain keyed archive); no reply
// A reply callback receives the reply's info, or nil when the daemon
// answered with an error or with nothing.
//
// Queues: every send and every daemon event runs on the serial queue
// "com.orvex.search.DPQQueue", which carries the queue-specific marker
// "com.orvex.search.DPQQueue" -> this object; fire-and-forget requests are
// prepared on "com.orvex.search.daemonQueue". Token delegates are called on
// the tokens' own queues.
//
// Invariants:
// - The running-query table holds every opened, not yet cancelled token.
//   It is changed on the connection queue, except for the insertion in
//   startQuery, which happens on the caller's thread before the query is
//   sent; a mutex makes that insertion race-free without delaying it, so a
//   reply can never find its token missing.
// - After an interruption every unfinished token of the table is re-sent
//   once (its delegate first hears searchDaemonQueryReset). Further
//   interruptions re-send nothing until the table has been emptied by
//   cancelQuery.
// - The message connection's handlers hold this object weakly.
//
// Threads: every public operation may be called from any thread; only
// retrieveUpdateListForDisplayIdentifier blocks (up to 5 seconds), and it
// must not be called on the connection queue.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kx/KXDaemonQueryToken.h"
#include "kx/KXSearchQuery.h"
#include "kx/value.h"
#include "kx/queue.h"

class KXDPQConnection;
class KXSearchResult;

class KX_EXPORT KXDaemonConnection : public kx::Object {
  struct Passkey {};

 public:
  using RunningQueries = std::unordered_map<uint32_t, std::shared_ptr<KXDaemonQueryToken>>;
  // The reply's info; nil when the daemon answered with an error or nothing.
  using InfoReply = std::function<void(const kx::Value& info)>;
  // A value of the reply passed through unchanged; nil when absent.
  using ValueReply = std::function<void(const kx::Value& value)>;
  // Image bytes; nullopt on an error reply or when the daemon sent none.
  using ImageCompletion = std::function<void(std::optional<std::vector<uint8_t>> data)>;
  // Always a result: an empty one when the daemon sent none.
  using CardCompletion = std::function<void(std::shared_ptr<KXSearchResult> result)>;

  static constexpr std::string_view kDefaultDaemonName = "com.orvex.searchd";

  // The process-wide instance on the default daemon name, made on first use
  // and kept until the process ends.
  static const std::shared_ptr<KXDaemonConnection>& sharedConnection();
  static std::shared_ptr<KXDaemonConnection> init();
  // A connection to another service (tests, alternative daemons). No
  // message connection is opened until the first request.
  static std::shared_ptr<KXDaemonConnection> initWithDaemonName(std::string daemonName);

  KXDaemonConnection(Passkey, std::string daemonName);
  ~KXDaemonConnection() override;

  // --- Queries -------------------------------------------------------------
  std::shared_ptr<KXDaemonQueryToken> startQuery(std::shared_ptr<KXSearchQuery> query);
  // Delegate calls on the main queue.
  std::shared_ptr<KXDaemonQueryToken> startQuery(std::shared_ptr<KXSearchQuery> query,
                                                 const kx::Value& response, bool isStable);
  // Files the token in the running-query table and sends "OpenQuery".
  // `response` is the dictation response, or nil.
  std::shared_ptr<KXDaemonQueryToken> startQuery(std::shared_ptr<KXSearchQuery> query,
                                                 const kx::Value& response, bool isStable,
                                                 std::shared_ptr<kx::Queue> queue);
  void sendMessageForToken(const std::shared_ptr<KXDaemonQueryToken>& token,
                           const kx::Value& response, bool isStable);
  // Drops the token from the table, cancels its query and sends
  // "CloseQuery".
  void cancelQuery(const std::shared_ptr<KXDaemonQueryToken>& token);

  // The "OpenQuery" info. With a response: "QID" (uint32), "DA", "BA",
  // "QS", "KL", "KPL" ("" for none), "QC" (int64), "DR", "DS", "IQ"
  // (booleans), "FC" (int64). Without one the stability and internal flags
  // are deliberately left out along with "DR", so a plain or re-sent query
  // carries eight keys. "BA" is left out when the query has no disabled
  // bundles at all (an empty list is sent as such).
  static kx::Dictionary OpenQueryInfo(const KXDaemonQueryToken& token, const kx::Value& response,
                                      bool isStable);

  // --- Fire-and-forget -----------------------------------------------------
  void activate();
  void deactivate();
  void preheat();
  void retrieveFirstTimeExperienceTextWithReply(ValueReply reply);
  void requestVantleParametersWithReply(ValueReply reply);
  void startRecordUpdatesForApplication(const std::string& displayIdentifier,
                                        const std::string& category);
  void requestRecordUpdatesForApplication(const std::string& displayIdentifier,
                                          const std::string& category,
                                          const std::vector<std::string>& identifiers);
  void endRecordUpdatesForApplication(const std::string& displayIdentifier,
                                      const std::string& category);
  // Sends nothing and keeps nothing.
  void registerApplication(const std::string& displayIdentifier,
                           const std::vector<std::string>& categories);
  // Archives `record` (any archivable record, normally a KXFeedback) with
  // the plain keyed archiver; nothing is sent when it does not archive.
  void sendFeedback(const kx::ObjectRef& record);

  // --- Requests with replies -----------------------------------------------
  void retrieveImageDataForResult(const KXSearchResult& result, uint32_t searchDomain,
                                  kx::Size size, ImageCompletion completion);
  void retrieveImageDataForResultIdentifierNumber(uint64_t identifier, uint32_t searchDomain,
                                                  kx::Size size, ImageCompletion completion);
  void retrieveImageDataWithIdentifier(const std::string& identifier, uint32_t searchDomain,
                                       kx::Size size, ImageCompletion completion);
  void fetchCardDataForResult(const KXSearchResult& result, CardCompletion completion);
  // Blocks until the daemon answers "UpdateList" or 5 seconds pass. Returns
  // true when the answer came in time; `*hasUpdates` (when given) is then
  // whether the answer carried info, and false after a time-out.
  bool retrieveUpdateListForDisplayIdentifier(const std::string& displayIdentifier,
                                              const std::string& category, bool* hasUpdates);

  // Sends `name` with `info` (a dictionary, or nil for none) on the
  // connection queue; with `reply`, as a request whose reply info reaches it.
  void _sendMessage(std::string name, kx::Value info, InfoReply reply);

  // --- Properties ------------------------------------------------------------
  std::string daemonName() const;
  void setDaemonName(std::string daemonName);
  // A snapshot of the running-query table, and its replacement.
  RunningQueries runningQueries() const;
  void setRunningQueries(RunningQueries queries);

  const std::shared_ptr<kx::Queue>& connectionQueue() const { return connectionQueue_; }
  const std::shared_ptr<kx::Queue>& queue() const { return queue_; }
  // The key of the connection queue's marker; its value is the connection.
  static const void* ConnectionQueueKey();

  std::string className() const override { return "KXDaemonConnection"; }

 private:
  std::shared_ptr<KXDaemonConnection> self();
  // The live message connection, made on first need. Connection queue only.
  std::shared_ptr<KXDPQConnection> _connection();
  // Drops the live connection after detaching its handlers.
  void _resetConnection();
  void handleDisconnect();
  void handleMessage(const std::shared_ptr<KXDPQMessage>& message);
  void resendQuery(const std::shared_ptr<KXDaemonQueryToken>& token);
  // Runs `work` on the request queue inside the activity `activity`.
  void prepareAsync(const std::shared_ptr<kx::Queue>& queue, const char* activity,
                    std::function<void()> work);
  void sendImageRequest(kx::Dictionary info, const char* activity, ImageCompletion completion);

  const std::shared_ptr<kx::Queue> connectionQueue_;
  const std::shared_ptr<kx::Queue> queue_;
  // Serialised with queue_, at background quality of service.
  const std::shared_ptr<kx::Queue> backgroundQueue_;

  // Connection queue only.
  std::shared_ptr<KXDPQConnection> connection_;

  mutable std::mutex mu_;
  // Guarded by mu_.
  std::string daemonName_;
  RunningQueries runningQueries_;
  bool queryHasBeenReissued_ = false;
};
