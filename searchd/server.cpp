#include "searchd/server.h"

#include <cstdint>
#include <iterator>
#include <random>
#include <thread>

#include "feedback/feedback_archive.h"
#include "kx/KXFeedback.h"
#include "kx/KXSearchResultSerializer.h"
#include "kx/format.h"
#include "kx/log.h"
#include "searchd/calculator.h"
#include "searchd/icon_theme.h"
#include "searchd/query_runner.h"

namespace kx::searchd {
namespace {

constexpr const char* kFirstTimeText =
    "Search applications, settings, contacts, notes, mail, events and documents on this computer";
// "SearchError" codes.
constexpr uint32_t kErrorIndex = 1;
constexpr uint32_t kErrorRefused = 2;
// The largest icon drawn for "GetResultImage", in pixels a side.
constexpr int kMaxIconPixels = 1024;

std::string NewSession() {
  std::random_device random;
  return Format("%08x%08x", random(), random());
}

// Seconds since 2001-01-01 00:00:00 UTC.
double Now2001() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count() - 978307200.0;
}

void Send(const std::shared_ptr<KXDPQConnection>& peer, const char* name, Dictionary info) {
  auto message = KXDPQMessage::initWithName(name);
  message->setInfo(std::move(info));
  peer->sendMessage(message);
}

}  // namespace

struct SearchServer::RunningQuery {
  std::atomic<bool> cancelled{false};
  // Held while a batch is sent and while the query is cancelled.
  std::mutex sendMu;
};

SearchServer::SearchServer(ServerOptions options, Index& writer, std::mutex& writerMutex)
    : options_(std::move(options)),
      writer_(writer),
      writerMutex_(writerMutex),
      feedbackLog_(options_.feedbackPath.empty() ? DefaultFeedbackLogPath() : options_.feedbackPath),
      requestLog_(options_.requestLogPath),
      workers_(std::make_unique<WorkerPool>(options_.indexPath, options_.workers)),
      lookup_(std::make_unique<Index>(options_.indexPath, /*readOnly=*/true)),
      session_(NewSession()) {}

SearchServer::~SearchServer() {
  drain();
  if (listener_) {
    listener_->setDefaultMessageHandler(nullptr);
    listener_->setDisconnectHandler(nullptr);
  }
}

void SearchServer::setDomainOrder(std::vector<uint32_t> order) {
  std::lock_guard lock(mu_);
  domainOrder_ = std::move(order);
}

std::vector<uint32_t> SearchServer::domainOrder() {
  std::lock_guard lock(mu_);
  return domainOrder_;
}

size_t SearchServer::runningQueryCount() {
  std::lock_guard lock(mu_);
  return running_.size();
}

void SearchServer::start() {
  listener_ = KXDPQServer::initListenerWithServiceName(options_.serviceName);
  // Handlers run on the peers' event queues and may outlive nothing here:
  // the server is destroyed only after the listener stopped dispatching
  // (drain shuts it down first).
  auto on = [this](const char* name, auto method) {
    listener_->setHandlerForMessageName(
        name, [this, method](const Peer& peer, const Message& message) { (this->*method)(peer, message); });
  };
  on("OpenQuery", &SearchServer::openQuery);
  on("CloseQuery", &SearchServer::closeQuery);
  auto reply = [this](const char* name, std::function<Value(const Value&)> answer) {
    listener_->setHandlerForMessageName(name, [answer](const Peer&, const Message& message) {
      const Value info = answer(message->info());
      if (message->needsReply()) message->sendReply(info);
    });
  };
  reply("Activate", [](const Value&) { return Value(); });
  reply("Deactivate", [](const Value&) { return Value(); });
  reply("Preheat", [](const Value&) {
    PreloadCalculator();
    return Value();
  });
  reply("RequestFTE", [](const Value&) { return Value(MakeDictionary({{"FTE", kFirstTimeText}})); });
  reply("RequestVantleParameters", [](const Value&) {
    return Value(MakeDictionary({{"VANPARAM", MakeDictionary({{"enabled", false}})}}));
  });
  for (const char* name : {"StartRecordUpdates", "RecordUpdateRequest", "EndRecordUpdates"}) {
    reply(name, [name](const Value& info) {
      KXLOG(7, "kx-searchd: %s ignored: %@", std::string(name), info);
      return Value();
    });
  }
  reply("UpdateList", [](const Value&) { return Value(); });
  reply("GetResultImage", [this](const Value& info) { return resultImage(info); });
  reply("RequestCardData", [this](const Value& info) { return cardData(info); });
  listener_->setHandlerForMessageName("SendFeedback", [this](const Peer&, const Message& message) {
    handleFeedback(message);
    if (message->needsReply()) message->sendReply();
  });
  listener_->setDefaultMessageHandler([](const Peer&, const Message& message) {
    KXLOG(4, "kx-searchd: unknown request %s", message->name().value_or("(no name)"));
    if (message->needsReply()) message->sendReply();
  });
  listener_->setDisconnectHandler([this](const Peer& peer) { peerGone(peer); });
  listener_->startListening();
}

void SearchServer::drain() {
  if (listener_) listener_->shutdown();
  workers_->finish();
}

void SearchServer::openQuery(const Peer& peer, const Message& message) {
  if (message->needsReply()) message->sendReply();
  std::optional<QueryRequest> request = ReadQueryRequest(message->info());
  if (!request) {
    KXLOG(4, "kx-searchd: OpenQuery without a query id dropped");
    return;
  }
  const uint32_t qid = request->queryID;
  requestLog_.record("OpenQuery", qid);
  auto query = std::make_shared<RunningQuery>();
  if (request->refusal.empty() && !fileQuery(peer, qid, query))
    request->refusal = Format("more than %zu open queries", kMaxOpenQueriesPerClient);
  if (!request->refusal.empty()) {
    KXLOG(4, "kx-searchd: OpenQuery %u refused: %s", qid, request->refusal);
    Send(peer, "SearchError", {{"QID", Number::UInt32(qid)}, {"ERR", Number::UInt32(kErrorRefused)}});
    return;
  }
  const bool accepted = workers_->submit(
      [this, peer, query, request = std::move(*request)](Index& index) mutable {
        runQuery(index, peer, std::move(request), query);
      });
  if (!accepted) finished(peer, qid, query);
}

bool SearchServer::fileQuery(const Peer& peer, uint32_t qid, const std::shared_ptr<RunningQuery>& query) {
  std::lock_guard lock(mu_);
  const QueryKey key(peer.get(), qid);
  auto it = running_.find(key);
  if (it != running_.end()) {
    // A query id that is still running is a re-send: the old run stops.
    std::lock_guard sendLock(it->second->sendMu);
    it->second->cancelled = true;
    it->second = query;
    return true;
  }
  // The map is ordered by peer first: the client's queries are one range.
  const auto first = running_.lower_bound(QueryKey(peer.get(), 0));
  const auto last = running_.upper_bound(QueryKey(peer.get(), UINT32_MAX));
  if (static_cast<size_t>(std::distance(first, last)) >= kMaxOpenQueriesPerClient) return false;
  running_.emplace(key, query);
  return true;
}

void SearchServer::closeQuery(const Peer& peer, const Message& message) {
  if (message->needsReply()) message->sendReply();
  const Number* qid = message->info()["QID"].number();
  if (!qid) return;
  requestLog_.record("CloseQuery", qid->uint32Value());
  std::shared_ptr<RunningQuery> query;
  {
    std::lock_guard lock(mu_);
    auto it = running_.find(QueryKey(peer.get(), qid->uint32Value()));
    if (it == running_.end()) return;
    query = std::move(it->second);
    running_.erase(it);
  }
  std::lock_guard sendLock(query->sendMu);
  query->cancelled = true;
}

void SearchServer::peerGone(const Peer& peer) {
  std::lock_guard lock(mu_);
  for (auto it = running_.begin(); it != running_.end();) {
    if (it->first.first != peer.get()) {
      ++it;
      continue;
    }
    it->second->cancelled = true;
    it = running_.erase(it);
  }
}

void SearchServer::finished(const Peer& peer, uint32_t qid, const std::shared_ptr<RunningQuery>& query) {
  std::lock_guard lock(mu_);
  auto it = running_.find(QueryKey(peer.get(), qid));
  if (it != running_.end() && it->second == query) running_.erase(it);
}

void SearchServer::runQuery(Index& index, const Peer& peer, QueryRequest request,
                            const std::shared_ptr<RunningQuery>& query) {
  const uint32_t qid = request.queryID;
  size_t batches = 0;
  auto sink = [&](const Sections& sections) {
    if (batches++ > 0 && options_.batchPause.count() > 0) std::this_thread::sleep_for(options_.batchPause);
    auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, /*inProc=*/false);
    for (const auto& section : sections) serializer->appendSection(section);
    serializer->serialize();
    if (!serializer->completed()) return false;
    auto message = KXDPQMessage::initWithName("SearchResults");
    message->setInfo(MakeDictionary({{"QID", Number::UInt32(qid)}}));
    message->setSharedMemoryRegion(serializer->byteVector());
    message->setSharedMemoryLength(serializer->byteVectorCount());
    std::lock_guard lock(query->sendMu);
    if (query->cancelled) return false;
    // The message layer has sent a sealed duplicate of the region's
    // descriptor when this returns; the serializer may go.
    peer->sendMessage(message);
    return true;
  };
  index.setCancelFlag(&query->cancelled);
  bool complete = false;
  try {
    complete = RunQuery(index, domainOrder(), request, sink);
  } catch (const std::exception& e) {
    KXLOG(3, "kx-searchd: query %u failed: %s", qid, std::string(e.what()));
    std::lock_guard lock(query->sendMu);
    if (!query->cancelled)
      Send(peer, "SearchError", {{"QID", Number::UInt32(qid)}, {"ERR", Number::UInt32(kErrorIndex)}});
  }
  index.setCancelFlag(nullptr);
  if (complete) {
    const uint64_t serial = ++querySerial_;
    const std::string fbq = Format("%s-%llu", session_, static_cast<unsigned long long>(serial));
    std::lock_guard lock(query->sendMu);
    if (!query->cancelled)
      Send(peer, "SearchComplete", {{"QID", Number::UInt32(qid)}, {"FBQ", fbq}, {"WFBQ", "web-" + fbq}});
  }
  finished(peer, qid, query);
}

void SearchServer::handleFeedback(const Message& message) {
  const Value::Bytes* archive = message->info()["FB"].data();
  std::shared_ptr<KXFeedback> record = archive ? UnarchivedFeedbackWithData(*archive) : nullptr;
  if (!record) {
    KXLOG(4, "kx-searchd: undecodable feedback dropped");
    return;
  }
  static const double sessionStart = Now2001();
  feedbackLog_.append(FeedbackLine(*record, sessionStart));
  if (std::optional<int64_t> item = EngagedItem(*record)) {
    std::lock_guard lock(writerMutex_);
    try {
      writer_.recordEngagement(*item, Now2001());
    } catch (const SqliteError& e) {
      KXLOG(3, "kx-searchd: engagement not recorded: %s", std::string(e.what()));
    }
  }
}

Value SearchServer::cardData(const Value& info) {
  const std::string* url = info["URL"].string();
  if (!url) return Value();
  std::lock_guard lock(lookupMutex_);
  std::optional<IndexedItem> hit = lookup_->itemByUrl(*url);
  if (!hit) return Value();
  return MakeDictionary({{"R", Value(MakeResult(*hit, "")->data())}});
}

Value SearchServer::resultImage(const Value& info) {
  std::optional<IndexedItem> hit;
  {
    std::lock_guard lock(lookupMutex_);
    if (const Number* id = info["ID"].number()) {
      hit = lookup_->itemById(static_cast<int64_t>(id->uint64Value()));
    } else if (const std::string* idi = info["IDI"].string()) {
      hit = lookup_->itemByIdentifier(*idi);
    }
  }
  if (!hit || hit->item.icon.empty()) return Value();
  const Number* w = info["ImageWidth"].number();
  const Number* h = info["ImageHeight"].number();
  const double asked = std::max(w ? w->doubleValue() : 0.0, h ? h->doubleValue() : 0.0);
  // Any number may arrive: none, NaN, or one that would have the icon drawn
  // larger than any screen.
  const int size = asked >= 1 ? static_cast<int>(std::min(asked, double{kMaxIconPixels})) : 48;
  std::optional<std::vector<uint8_t>> png = IconPng(hit->item.icon, size);
  if (!png) return Value();
  return MakeDictionary({{"UA", Value(std::move(*png))}});
}

}  // namespace kx::searchd
