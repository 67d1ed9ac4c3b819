#include "kx/KXDaemonConnection.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <utility>

#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "kx/log.h"
#include "kx/KXSearchResult.h"
#include "platform/services/activity.h"
#include "support/keyed_archiver.h"

namespace {

constexpr char kConnectionQueueLabel[] = "com.orvex.search.DPQQueue";
constexpr char kRequestQueueLabel[] = "com.orvex.search.daemonQueue";
constexpr char kBackgroundQueueLabel[] = "com.orvex.search.daemonQueue.background";
// Its address is the marker's key; its text names the marked queue.
constexpr char kConnectionQueueKey[] = "com.orvex.search.DPQQueue";

constexpr auto kUpdateListTimeout = std::chrono::nanoseconds(5'000'000'000);
// How often a caller waiting for the update list runs queued connection work.
constexpr auto kUpdateListSlice = std::chrono::milliseconds(50);

// For requests whose reply the daemon must send but nobody reads.
KXDaemonConnection::InfoReply IgnoreReply() {
  return [](const kx::Value&) {};
}

// Passes the reply's `key` through to `reply`.
KXDaemonConnection::InfoReply ValueFor(const char* key, KXDaemonConnection::ValueReply reply) {
  return [key, reply = std::move(reply)](const kx::Value& info) {
    if (reply) reply(info[key]);
  };
}

kx::Dictionary ApplicationInfo(const std::string& displayIdentifier, const std::string& category) {
  return kx::MakeDictionary({{"DI", displayIdentifier}, {"CAT", category}});
}

kx::Value StringOrEmpty(const std::optional<std::string>& s) { return kx::Value(s.value_or("")); }

// The server's card URL of a result: the "card_url" server property, kept
// among the additional properties as a URL or as its string.
std::optional<std::string> CardURLOf(const KXSearchResult& result) {
  const kx::Value value = result.valueForUndefinedKey("card_url");
  if (const kx::URL* url = value.url()) return url->absoluteString();
  if (const std::string* s = value.string()) return *s;
  return std::nullopt;
}

// Sends `name` with `info` on `connection`; with `reply`, as a request
// whose reply info (nil for an error) reaches it on the connection's queue.
void SendNamed(KXDPQConnection& connection, const std::string& name, kx::Value info,
               KXDaemonConnection::InfoReply reply) {
  std::shared_ptr<KXDPQMessage> message = KXDPQMessage::initWithName(name);
  message->setInfo(std::move(info));
  if (!reply) {
    connection.sendMessage(message);
    return;
  }
  connection.sendMessage(message,
                         [reply = std::move(reply)](const std::shared_ptr<KXDPQMessage>& answer) {
                           reply(answer ? answer->info() : kx::Value());
                         });
}

}  // namespace

// --- Creation and destruction -------------------------------------------------

KXDaemonConnection::KXDaemonConnection(Passkey, std::string daemonName)
    : connectionQueue_(kx::Queue::Create(kConnectionQueueLabel)),
      queue_(kx::Queue::Create(kRequestQueueLabel)),
      backgroundQueue_(kx::Queue::Create(kBackgroundQueueLabel, kx::Queue::QoS::Background, queue_)),
      daemonName_(std::move(daemonName)) {
  // The marker does not own the connection: the queue outlives it only
  // while the destructor clears the marker.
  connectionQueue_->setSpecific(ConnectionQueueKey(),
                                std::shared_ptr<void>(std::shared_ptr<void>(), this));
}

std::shared_ptr<KXDaemonConnection> KXDaemonConnection::initWithDaemonName(std::string daemonName) {
  return std::make_shared<KXDaemonConnection>(Passkey{}, std::move(daemonName));
}

std::shared_ptr<KXDaemonConnection> KXDaemonConnection::init() {
  return initWithDaemonName(std::string(kDefaultDaemonName));
}

const std::shared_ptr<KXDaemonConnection>& KXDaemonConnection::sharedConnection() {
  // Never destroyed: it serves until the process ends, including work that
  // runs while static objects are being torn down.
  static const auto* shared = new std::shared_ptr<KXDaemonConnection>(init());
  return *shared;
}

KXDaemonConnection::~KXDaemonConnection() {
  // Nothing else can hold the connection now: every queued job holds it
  // strongly and the message handlers hold it weakly.
  _resetConnection();
  // Sends already queued reach the message connection before the table and
  // the queues go; on the connection queue itself they already have.
  if (kx::Queue::GetSpecific(ConnectionQueueKey()).get() != this) connectionQueue_->sync([] {});
  connectionQueue_->setSpecific(ConnectionQueueKey(), nullptr);
}

std::shared_ptr<KXDaemonConnection> KXDaemonConnection::self() {
  return std::static_pointer_cast<KXDaemonConnection>(shared_from_this());
}

const void* KXDaemonConnection::ConnectionQueueKey() { return kConnectionQueueKey; }

// --- Properties -----------------------------------------------------------------

std::string KXDaemonConnection::daemonName() const {
  std::lock_guard lock(mu_);
  return daemonName_;
}

void KXDaemonConnection::setDaemonName(std::string daemonName) {
  std::lock_guard lock(mu_);
  daemonName_ = std::move(daemonName);
}

KXDaemonConnection::RunningQueries KXDaemonConnection::runningQueries() const {
  std::lock_guard lock(mu_);
  return runningQueries_;
}

void KXDaemonConnection::setRunningQueries(RunningQueries queries) {
  std::lock_guard lock(mu_);
  std::swap(runningQueries_, queries);
  // The old table is released after the lock: its tokens' destruction must
  // not run under it.
}

// --- The message connection -----------------------------------------------------

std::shared_ptr<KXDPQConnection> KXDaemonConnection::_connection() {
  KX_ASSERT_ON_QUEUE(connectionQueue_);
  if (!connection_) {
    // Made on its own event queue, so both handlers are in place before the
    // first event can run.
    connection_ = KXDPQConnection::initWithServiceName(daemonName(), connectionQueue_);
    std::weak_ptr<KXDaemonConnection> weak = self();
    connection_->setDisconnectHandler([weak] {
      if (std::shared_ptr<KXDaemonConnection> connection = weak.lock())
        connection->handleDisconnect();
    });
    connection_->setMessageHandler([weak](const std::shared_ptr<KXDPQMessage>& message) {
      if (std::shared_ptr<KXDaemonConnection> connection = weak.lock())
        connection->handleMessage(message);
    });
  }
  return connection_;
}

void KXDaemonConnection::_resetConnection() {
  std::shared_ptr<KXDPQConnection> connection = std::move(connection_);
  connection_ = nullptr;
  if (!connection) return;
  connection->setMessageHandler(nullptr);
  connection->setDisconnectHandler(nullptr);
  connection->shutdown();
}

void KXDaemonConnection::handleDisconnect() {
  KX_ASSERT_ON_QUEUE(connectionQueue_);
  _resetConnection();
  std::vector<std::shared_ptr<KXDaemonQueryToken>> reissue;
  {
    std::lock_guard lock(mu_);
    if (queryHasBeenReissued_ || runningQueries_.empty()) return;
    queryHasBeenReissued_ = true;
    reissue.reserve(runningQueries_.size());
    for (const auto& [id, token] : runningQueries_) reissue.push_back(token);
  }
  for (const std::shared_ptr<KXDaemonQueryToken>& token : reissue) resendQuery(token);
}

void KXDaemonConnection::resendQuery(const std::shared_ptr<KXDaemonQueryToken>& token) {
  // On the token's queue, so that the reset reaches the delegate before any
  // result of the re-sent query can.
  token->queue()->async([connection = self(), token] {
    KXLOG(7, "=====^^^^ Resending query!");
    if (token->queryFinished()) return;
    // Cancelled since the interruption: its "CloseQuery" has gone out, and
    // re-sending it would make the daemon run it for nobody.
    {
      std::lock_guard lock(connection->mu_);
      if (!connection->runningQueries_.contains(token->queryID())) return;
    }
    if (std::shared_ptr<KXDaemonQueryDelegate> delegate = token->delegate())
      delegate->searchDaemonQueryReset(token);
    connection->sendMessageForToken(token, kx::Value(), false);
  });
}

void KXDaemonConnection::handleMessage(const std::shared_ptr<KXDPQMessage>& message) {
  KX_ASSERT_ON_QUEUE(connectionQueue_);
  const kx::Number* qid = message->info()["QID"].number();
  const uint32_t id = qid ? qid->uint32Value() : 0;
  std::shared_ptr<KXDaemonQueryToken> token;
  {
    std::lock_guard lock(mu_);
    auto it = runningQueries_.find(id);
    if (it != runningQueries_.end()) token = it->second;
  }
  // Without a token the message is dropped here, and its mapping with it.
  if (token) token->handleMessage(message);
}

void KXDaemonConnection::_sendMessage(std::string name, kx::Value info, InfoReply reply) {
  connectionQueue_->async([connection = self(), name = std::move(name), info = std::move(info),
                           reply = std::move(reply)]() mutable {
    SendNamed(*connection->_connection(), name, std::move(info), std::move(reply));
    // Let go inside the job: a queue drops a job's captures after the job
    // has stopped counting as running on it, and a destructor run from
    // there would wait for the very queue its thread still holds.
    connection.reset();
  });
}

// --- Queries ----------------------------------------------------------------------

std::shared_ptr<KXDaemonQueryToken> KXDaemonConnection::startQuery(
    std::shared_ptr<KXSearchQuery> query) {
  return startQuery(std::move(query), kx::Value(), false);
}

std::shared_ptr<KXDaemonQueryToken> KXDaemonConnection::startQuery(
    std::shared_ptr<KXSearchQuery> query, const kx::Value& response, bool isStable) {
  return startQuery(std::move(query), response, isStable, kx::Queue::Main());
}

std::shared_ptr<KXDaemonQueryToken> KXDaemonConnection::startQuery(
    std::shared_ptr<KXSearchQuery> query, const kx::Value& response, bool isStable,
    std::shared_ptr<kx::Queue> queue) {
  if (!query || !queue) {
    KXLOG(3, "Cannot start a query without a query and a queue");
    return nullptr;
  }
  std::shared_ptr<KXDaemonQueryToken> token =
      KXDaemonQueryToken::initWithQuery(std::move(query), std::move(queue));
  {
    // Filed before the query leaves, so its first answer finds it.
    std::lock_guard lock(mu_);
    runningQueries_[token->queryID()] = token;
  }
  kx::ActivityScope activity("query");
  sendMessageForToken(token, response, isStable);
  return token;
}

kx::Dictionary KXDaemonConnection::OpenQueryInfo(const KXDaemonQueryToken& token,
                                                 const kx::Value& response, bool isStable) {
  const KXSearchQuery& query = *token.query();
  kx::Array domains;
  domains.reserve(query.searchDomains().size());
  for (uint32_t domain : query.searchDomains()) domains.emplace_back(kx::Number::UInt32(domain));

  // The pairs in the order they are listed. Without a response the eighth
  // pair repeats "DA" instead of carrying "DR", "DS" and "IQ", so plain and
  // re-sent queries reach the daemon without the stability and internal
  // flags. Deliberate; the daemon relies on it.
  std::vector<std::pair<const char*, kx::Value>> pairs = {
      {"QID", kx::Number::UInt32(token.queryID())},
      {"DA", domains},
  };
  if (const std::optional<KXSearchQuery::BundleList>& bundles = query.disabledBundles()) {
    kx::Array disabled(bundles->begin(), bundles->end());
    pairs.emplace_back("BA", std::move(disabled));
  }
  pairs.emplace_back("QS", query.searchString());
  pairs.emplace_back("KL", StringOrEmpty(query.keyboardLanguage()));
  pairs.emplace_back("KPL", StringOrEmpty(query.keyboardPrimaryLanguage()));
  pairs.emplace_back("QC", kx::Number::Int64(query.maxCount()));
  if (!response.isNil()) {
    pairs.emplace_back("DR", response);
    pairs.emplace_back("DS", kx::Number::Bool(isStable));
    pairs.emplace_back("IQ", kx::Number::Bool(query.internal()));
  } else {
    pairs.emplace_back("DA", domains);
  }
  pairs.emplace_back("FC", kx::Number::Int64(query.contentFilters()));

  kx::Dictionary info;
  for (auto& [key, value] : pairs) info.insert_or_assign(key, std::move(value));
  return info;
}

void KXDaemonConnection::sendMessageForToken(const std::shared_ptr<KXDaemonQueryToken>& token,
                                             const kx::Value& response, bool isStable) {
  if (!token || !token->query()) return;
  _sendMessage("OpenQuery", OpenQueryInfo(*token, response, isStable), IgnoreReply());
}

void KXDaemonConnection::cancelQuery(const std::shared_ptr<KXDaemonQueryToken>& token) {
  if (!token) return;
  const uint32_t id = token->queryID();
  auto forget = [&] {
    std::shared_ptr<KXDaemonQueryToken> removed;
    {
      std::lock_guard lock(mu_);
      auto it = runningQueries_.find(id);
      if (it != runningQueries_.end()) {
        removed = std::move(it->second);
        runningQueries_.erase(it);
      }
      if (runningQueries_.empty()) queryHasBeenReissued_ = false;
    }
    if (token->query()) token->query()->cancel();
  };
  // Synchronous, so that no daemon message is handed to the token once this
  // returns; inline when already on the connection queue.
  if (connectionQueue_->isCurrent()) {
    forget();
  } else {
    connectionQueue_->sync(forget);
  }
  kx::ActivityScope activity("queryCancel");
  _sendMessage("CloseQuery", kx::MakeDictionary({{"QID", kx::Number::Int32(static_cast<int32_t>(id))}}),
               IgnoreReply());
}

// --- Fire-and-forget requests --------------------------------------------------

void KXDaemonConnection::prepareAsync(const std::shared_ptr<kx::Queue>& queue,
                                      const char* activity, std::function<void()> work) {
  queue->async([connection = self(), activity, work = std::move(work)] {
    kx::ActivityScope scope(activity);
    work();
  });
}

void KXDaemonConnection::activate() {
  prepareAsync(queue_, "activation", [this] { _sendMessage("Activate", kx::Value(), IgnoreReply()); });
}

void KXDaemonConnection::deactivate() {
  prepareAsync(backgroundQueue_, "deactivation",
               [this] { _sendMessage("Deactivate", kx::Value(), nullptr); });
}

void KXDaemonConnection::preheat() {
  prepareAsync(queue_, "preheat", [this] { _sendMessage("Preheat", kx::Value(), nullptr); });
}

void KXDaemonConnection::retrieveFirstTimeExperienceTextWithReply(ValueReply reply) {
  prepareAsync(queue_, "fte", [this, reply = std::move(reply)] {
    _sendMessage("RequestFTE", kx::Value(), ValueFor("FTE", reply));
  });
}

void KXDaemonConnection::requestVantleParametersWithReply(ValueReply reply) {
  prepareAsync(queue_, "vantleparams", [this, reply = std::move(reply)] {
    _sendMessage("RequestVantleParameters", kx::Value(), ValueFor("VANPARAM", reply));
  });
}

void KXDaemonConnection::sendFeedback(const kx::ObjectRef& record) {
  if (!record) return;
  // The activity keeps the card request's label; tools that read the traces
  // know feedback under it.
  prepareAsync(backgroundQueue_, "fetchCardDataForResult", [this, record] {
    std::optional<std::vector<uint8_t>> archive =
        kx::KeyedArchiver::ArchivedDataWithRootObject(kx::Value(record));
    if (!archive || archive->empty()) {
      KXLOG(3, "Feedback %@ could not be archived; not sent", record);
      return;
    }
    _sendMessage("SendFeedback", kx::MakeDictionary({{"FB", kx::Value(std::move(*archive))}}),
                 nullptr);
  });
}

void KXDaemonConnection::startRecordUpdatesForApplication(const std::string& displayIdentifier,
                                                          const std::string& category) {
  _sendMessage("StartRecordUpdates", ApplicationInfo(displayIdentifier, category), nullptr);
}

void KXDaemonConnection::requestRecordUpdatesForApplication(
    const std::string& displayIdentifier, const std::string& category,
    const std::vector<std::string>& identifiers) {
  kx::Dictionary info = ApplicationInfo(displayIdentifier, category);
  info["UA"] = kx::Array(identifiers.begin(), identifiers.end());
  _sendMessage("RecordUpdateRequest", std::move(info), nullptr);
}

void KXDaemonConnection::endRecordUpdatesForApplication(const std::string& displayIdentifier,
                                                        const std::string& category) {
  _sendMessage("EndRecordUpdates", ApplicationInfo(displayIdentifier, category), nullptr);
}

void KXDaemonConnection::registerApplication(const std::string&, const std::vector<std::string>&) {}

// --- Requests with replies ----------------------------------------------------------

void KXDaemonConnection::retrieveImageDataForResult(const KXSearchResult& result,
                                                    uint32_t searchDomain, kx::Size size,
                                                    ImageCompletion completion) {
  retrieveImageDataForResultIdentifierNumber(result.identifier(), searchDomain, size,
                                             std::move(completion));
}

void KXDaemonConnection::retrieveImageDataForResultIdentifierNumber(uint64_t identifier,
                                                                    uint32_t searchDomain,
                                                                    kx::Size size,
                                                                    ImageCompletion completion) {
  kx::Dictionary info = {{"ID", kx::Number::UInt64(identifier)}};
  info["D"] = kx::Number::Int32(static_cast<int32_t>(searchDomain));
  info["ImageWidth"] = kx::Number::Float(static_cast<float>(size.width));
  info["ImageHeight"] = kx::Number::Float(static_cast<float>(size.height));
  sendImageRequest(std::move(info), "retrieveImageDataForResultIdentifierNumber",
                   std::move(completion));
}

void KXDaemonConnection::retrieveImageDataWithIdentifier(const std::string& identifier,
                                                         uint32_t searchDomain, kx::Size size,
                                                         ImageCompletion completion) {
  kx::Dictionary info = {{"IDI", identifier}};
  info["D"] = kx::Number::Int32(static_cast<int32_t>(searchDomain));
  info["ImageWidth"] = kx::Number::Float(static_cast<float>(size.width));
  info["ImageHeight"] = kx::Number::Float(static_cast<float>(size.height));
  sendImageRequest(std::move(info), "retrieveImageDataWithIdentifier", std::move(completion));
}

void KXDaemonConnection::sendImageRequest(kx::Dictionary info, const char* activity,
                                          ImageCompletion completion) {
  kx::ActivityScope scope(activity);
  _sendMessage("GetResultImage", std::move(info),
               [completion = std::move(completion)](const kx::Value& reply) {
                 if (!completion) return;
                 const kx::Value::Bytes* data = reply["UA"].data();
                 completion(data ? std::optional<std::vector<uint8_t>>(*data) : std::nullopt);
               });
}

void KXDaemonConnection::fetchCardDataForResult(const KXSearchResult& result,
                                                CardCompletion completion) {
  kx::ActivityScope scope("fetchCardDataForResult");
  kx::Dictionary info;
  if (std::optional<std::string> url = CardURLOf(result)) info["URL"] = std::move(*url);
  _sendMessage("RequestCardData", std::move(info),
               [completion = std::move(completion)](const kx::Value& reply) {
                 if (!completion) return;
                 auto card = std::make_shared<KXSearchResult>();
                 // Fields decoded before damage are kept, as the reader does.
                 if (const kx::Value::Bytes* data = reply["R"].data()) card->initWithData(*data);
                 completion(std::move(card));
               });
}

bool KXDaemonConnection::retrieveUpdateListForDisplayIdentifier(const std::string& displayIdentifier,
                                                                const std::string& category,
                                                                bool* hasUpdates) {
  // Shared with the reply, which may come after the wait gave up.
  struct Answer {
    std::mutex mu;
    std::condition_variable cv;
    bool answered = false;
    bool hasUpdates = false;
  };
  auto answer = std::make_shared<Answer>();
  InfoReply reply = [answer](const kx::Value& info) {
    std::lock_guard lock(answer->mu);
    answer->hasUpdates = !info.isNil();
    answer->answered = true;
    answer->cv.notify_all();
  };
  // Callers may be pool threads, possibly every one the pool has, so the
  // wait must not depend on a free one. The request is therefore sent from
  // this thread (synchronous work runs on the caller), and the reader thread
  // delivers a daemon's reply in place on the connection queue. Only an
  // error answer (the connection ended) is posted there; the waiting caller
  // runs such queued work itself between slices of its wait.
  connectionQueue_->sync([&] {
    SendNamed(*_connection(), "UpdateList", ApplicationInfo(displayIdentifier, category),
              std::move(reply));
  });
  const auto deadline = std::chrono::steady_clock::now() + kUpdateListTimeout;
  bool inTime = false;
  bool flag = false;
  for (;;) {
    {
      std::unique_lock lock(answer->mu);
      const auto until = std::min(deadline, std::chrono::steady_clock::now() + kUpdateListSlice);
      answer->cv.wait_until(lock, until, [&] { return answer->answered; });
      inTime = answer->answered;
      flag = answer->hasUpdates;
    }
    if (inTime || std::chrono::steady_clock::now() >= deadline) break;
    connectionQueue_->sync([] {});
  }
  KXLOG(7, "retrieve updates: %s %s", flag ? "yes" : "no", inTime ? "" : " (timedout)");
  if (hasUpdates) *hasUpdates = inTime && flag;
  return inTime;
}
