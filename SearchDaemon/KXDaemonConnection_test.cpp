#include "kx/KXDaemonConnection.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <set>

#include "SearchDaemon/daemon_testing.h"
#include "kx/KXFeedback.h"
#include "kx/log.h"
#include "kx/KXSearchResult.h"
#include "platform/dispatch/thread_pool.h"
#include "platform/message/message_testing.h"
#include "platform/services/activity.h"

namespace kx {
namespace {

using test::kTimeout;
using test::LoggedCount;
using test::Received;
using test::RecordingDelegate;
using test::DaemonClient;
using test::TestDaemon;
using Events = std::vector<std::string>;

std::set<std::string> Keys(std::initializer_list<const char*> keys) {
  return std::set<std::string>(keys.begin(), keys.end());
}

using test::SharedMemoryMappingCount;

// Waits for the value a callback hands over.
template <class T>
T Await(const std::function<void(std::function<void(T)>)>& request) {
  auto promise = std::make_shared<std::promise<T>>();
  std::future<T> future = promise->get_future();
  request([promise](T value) { promise->set_value(std::move(value)); });
  if (future.wait_for(kTimeout) != std::future_status::ready) {
    ADD_FAILURE() << "no answer";
    return T{};
  }
  return future.get();
}

// Records the names of the activities begun while it is installed.
class RecordingActivities : public Activities {
 public:
  uint64_t begin(std::string_view name, uint64_t) override {
    std::lock_guard lock(mu_);
    names_.emplace(name);
    return ++last_;
  }
  void end(uint64_t) override {}
  std::multiset<std::string> names() {
    std::lock_guard lock(mu_);
    return names_;
  }

 private:
  std::mutex mu_;
  std::multiset<std::string> names_;
  uint64_t last_ = 0;
};

// The "OpenQuery" messages the daemon received for `token`.
std::vector<Received> OpensOf(const TestDaemon& daemon, const KXDaemonQueryToken& token) {
  std::vector<Received> opens;
  const std::string qid = "QID = " + std::to_string(token.queryID()) + ";";
  for (Received& r : daemon.received("OpenQuery"))
    if (r.details.find(qid) != std::string::npos) opens.push_back(std::move(r));
  return opens;
}

TEST(KXDaemonConnectionTest, OpenQueryInfoBoxesEachNumberInItsWidth) {
  auto query = KXSearchQuery::initWithSearchString("q", std::nullopt, std::nullopt,
                                                   KXSearchQuery::DomainList{3}, std::nullopt);
  query->setMaxCount(5);
  query->setContentFilters(-2);
  query->setInternal(true);
  auto token = KXDaemonQueryToken::initWithQuery(query);
  const Dictionary info =
      KXDaemonConnection::OpenQueryInfo(*token, MakeDictionary({{"k", "v"}}), true);
  auto type = [&](const char* key) { return info.at(key).number()->type(); };
  EXPECT_EQ(info.at("QID"), Value(Number::UInt32(token->queryID())));
  EXPECT_EQ(info.at("FC"), Value(Number::Int64(-2)));
  EXPECT_TRUE(info.at("IQ").number()->boolValue());
  const std::vector<Number::Type> types = {type("QID"), type("QC"), type("FC"), type("DS")};
  EXPECT_EQ(types, (std::vector<Number::Type>{Number::Type::UInt32, Number::Type::Int64,
                                              Number::Type::Int64, Number::Type::Bool}));
  EXPECT_EQ(info.at("DA"), Value(Array{Number::UInt32(3)}));
  // Missing languages travel as empty strings; missing bundles not at all.
  EXPECT_EQ(info.at("KL"), Value(""));
  EXPECT_EQ(info.at("KPL"), Value(""));
  EXPECT_FALSE(info.contains("BA"));
  EXPECT_EQ(info.size(), 10u);
}

TEST(KXDaemonConnectionTest, RequestsAreTracedUnderTheirActivityNames) {
  auto activities = std::make_shared<RecordingActivities>();
  Activities::SetShared(activities);
  // Nobody serves this name: every request fails, which tracing ignores.
  auto connection = KXDaemonConnection::initWithDaemonName("nobody");
  KXSearchResult result;
  connection->activate();
  connection->deactivate();
  connection->preheat();
  connection->retrieveFirstTimeExperienceTextWithReply(nullptr);
  connection->requestVantleParametersWithReply(nullptr);
  connection->sendFeedback(std::make_shared<KXFeedback>());
  connection->retrieveImageDataForResult(result, 1, Size{}, nullptr);
  connection->retrieveImageDataWithIdentifier("x", 1, Size{}, nullptr);
  connection->fetchCardDataForResult(result, nullptr);
  connection->cancelQuery(connection->startQuery(KXSearchQuery::initWithSearchString("q"),
                                                 Value(), false, Queue::Create("test.query")));
  // The background requests share the request queue.
  connection->queue()->sync([] {});
  Activities::SetShared(nullptr);
  EXPECT_EQ(activities->names(),
            (std::multiset<std::string>{"activation", "deactivation", "preheat", "fte",
                                        "vantleparams", "fetchCardDataForResult",
                                        "fetchCardDataForResult",
                                        "retrieveImageDataForResultIdentifierNumber",
                                        "retrieveImageDataWithIdentifier", "query",
                                        "queryCancel"}));
}

TEST(KXDaemonConnectionTest, AQueryReceivesItsBatchesAndErrorsThenCompletes) {
  TestDaemon daemon;
  DaemonClient client(daemon);
  DaemonClient::Query query = client.start("results:2:3 error:7 results:4:1 complete:F1:W1");
  EXPECT_EQ(query.events(4),
            (Events{"results 2:3", "error SearchError 7", "results 4:1", "complete"}));
  EXPECT_EQ(query.delegate->offQueue, 0);
  EXPECT_TRUE(query.token->queryFinished());
  EXPECT_EQ(query.token->fbq(), "F1");
  EXPECT_EQ(query.token->web_fbq(), "W1");

  // Without a response: eight distinct keys, no dictation or internal flags.
  const std::vector<Received> plain = OpensOf(daemon, *query.token);
  ASSERT_EQ(plain.size(), 1u);
  EXPECT_EQ(plain[0].keys, Keys({"QID", "DA", "BA", "QS", "KL", "KPL", "QC", "FC"}));

  // With one: all eleven.
  DaemonClient::Query dictated =
      client.start("complete", MakeDictionary({{"transcript", "mail"}}), true);
  dictated.events(1);
  const std::vector<Received> opens = OpensOf(daemon, *dictated.token);
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].keys, Keys({"QID", "DA", "BA", "QS", "KL", "KPL", "QC", "DR", "DS", "IQ", "FC"}));

  // Cancelling leaves the table, cancels the query and closes it at the daemon.
  client.connection->cancelQuery(query.token);
  EXPECT_TRUE(query.token->query()->cancelled());
  EXPECT_EQ(client.connection->runningQueries().count(query.token->queryID()), 0u);
  EXPECT_EQ(client.connection->runningQueries().size(), 1u);
  const std::vector<Received> closes = daemon.waitFor("CloseQuery", 1);
  ASSERT_EQ(closes.size(), 1u);
  EXPECT_NE(closes[0].details.find("QID = " + std::to_string(query.token->queryID()) + ";"),
            std::string::npos);
}

TEST(KXDaemonConnectionTest, MessagesForOtherOrMissingQueryIdsChangeNothingAndLeakNoMapping) {
  TestDaemon daemon;
  DaemonClient client(daemon);
  EXPECT_EQ(client.start("stray:5 noqid:5 results:1:1 complete").events(2),
            (Events{"results 1:1", "complete"}));
  const size_t before = SharedMemoryMappingCount();
  // Every stray batch, each in shared memory of its own, is dropped before
  // the completion behind it arrives.
  EXPECT_EQ(client.start("stray:40 noqid:40 complete").events(1), Events{"complete"});
  EXPECT_EQ(SharedMemoryMappingCount(), before);
}

TEST(KXDaemonConnectionTest, AnInterruptionResendsEachUnfinishedQueryOnce) {
  setKXLogLevel(7);
  const char* kResending = "=====^^^^ Resending query!";
  const size_t resentBefore = LoggedCount(kResending);
  TestDaemon daemon;
  DaemonClient client(daemon);
  DaemonClient::Query finished = client.start("results:1:1 complete");
  EXPECT_EQ(finished.events(2), (Events{"results 1:1", "complete"}));
  DaemonClient::Query a = client.start("results:2:1", MakeDictionary({{"transcript", "a"}}), true);
  DaemonClient::Query b = client.start("results:3:1");
  a.events(1);
  b.events(1);
  const pid_t first = daemon.pid();

  daemon.kill();
  // The launcher's next daemon answers the re-sent queries.
  EXPECT_EQ(a.events(3), (Events{"results 2:1", "reset", "results 2:1"}));
  EXPECT_EQ(b.events(3), (Events{"results 3:1", "reset", "results 3:1"}));
  for (const auto* q : {&a, &b}) {
    const std::vector<Received> opens = OpensOf(daemon, *q->token);
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_NE(opens[1].pid, first);
    // Re-sent without the response and its flags.
    EXPECT_EQ(opens[1].keys, Keys({"QID", "DA", "BA", "QS", "KL", "KPL", "QC", "FC"}));
  }
  EXPECT_EQ(OpensOf(daemon, *finished.token).size(), 1u);
  EXPECT_EQ(LoggedCount(kResending) - resentBefore, 3u);

  // A second interruption while they run re-sends nothing. A request that
  // is answered shows the client has reconnected; flushing the tokens'
  // queues and one more round trip lets anything re-sent reach the daemon.
  daemon.kill();
  auto fte = [&] {
    return Await<Value>([&](auto done) {
      client.connection->retrieveFirstTimeExperienceTextWithReply(done);
    });
  };
  for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
       fte().isNil() && std::chrono::steady_clock::now() < deadline;) {
  }
  a.token->queue()->sync([] {});
  b.token->queue()->sync([] {});
  EXPECT_EQ(fte(), Value("Type to search"));
  EXPECT_EQ(OpensOf(daemon, *a.token).size(), 2u);
  EXPECT_EQ(OpensOf(daemon, *b.token).size(), 2u);
  EXPECT_EQ(a.delegate->events.size(), 3u);
  EXPECT_EQ(LoggedCount(kResending) - resentBefore, 3u);

  // Once the table has emptied, the next interruption re-sends again.
  for (const auto* q : {&finished, &a, &b}) client.connection->cancelQuery(q->token);
  DaemonClient::Query c = client.start("results:5:1");
  c.events(1);
  daemon.kill();
  EXPECT_EQ(c.events(3), (Events{"results 5:1", "reset", "results 5:1"}));
}

TEST(KXDaemonConnectionTest, AQueryCancelledBeforeItsResendIsNotResent) {
  TestDaemon daemon;
  DaemonClient client(daemon);
  DaemonClient::Query a = client.start("results:2:1");
  DaemonClient::Query b = client.start("results:3:1");
  a.events(1);
  b.events(1);
  // The re-send step of `a` waits on its queue behind this job.
  std::promise<void> release;
  a.token->queue()->async([held = release.get_future().share()] { held.wait(); });
  daemon.kill();
  EXPECT_EQ(b.events(3), (Events{"results 3:1", "reset", "results 3:1"}));
  client.connection->cancelQuery(a.token);
  release.set_value();
  a.token->queue()->sync([] {});
  // One round trip after it: anything `a` sent has reached the daemon.
  EXPECT_EQ(Await<Value>([&](auto done) { client.connection->retrieveFirstTimeExperienceTextWithReply(done); }),
            Value("Type to search"));
  EXPECT_EQ(OpensOf(daemon, *a.token).size(), 1u);
  EXPECT_EQ(a.delegate->events.items(), (Events{"results 2:1"}));
}

TEST(KXDaemonConnectionTest, AgainstASilentDaemonTheUpdateListTimesOutAndRegistrationSendsNothing) {
  setKXLogLevel(7);
  TestDaemon daemon({"--silent"});
  DaemonClient client(daemon);
  const char* kTimedOut = "retrieve updates: no  (timedout)";
  const size_t timedOutBefore = LoggedCount(kTimedOut);
  bool hasUpdates = true;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(client.connection->retrieveUpdateListForDisplayIdentifier("updates.notes", "notes",
                                                                         &hasUpdates));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(hasUpdates);
  EXPECT_GE(waited, std::chrono::milliseconds(4990));
  EXPECT_LT(waited, std::chrono::milliseconds(6500));
  EXPECT_EQ(LoggedCount(kTimedOut) - timedOutBefore, 1u);

  client.connection->registerApplication("com.example.notes", {"notes"});
  client.connection->preheat();
  daemon.waitFor("Preheat", 1);
  std::vector<std::string> names;
  for (const Received& r : daemon.received())
    if (r.name != "start") names.push_back(r.name);
  EXPECT_EQ(names, (std::vector<std::string>{"UpdateList", "Preheat"}));
}

TEST(KXDaemonConnectionTest, UpdateListCallersOnEveryPoolThreadAllGetTheirAnswers) {
  // Effective because ctest runs each test in a process of its own, and
  // checked, so that a pool made earlier cannot hide the starvation.
  setenv("KX_THREAD_POOL_SIZE", "2", 1);
  ASSERT_EQ(ThreadPool::Shared().size(), 2u);
  TestDaemon daemon;
  DaemonClient client(daemon);
  struct Caller {
    std::string displayIdentifier;
    bool answered = false;
    bool hasUpdates = false;
  };
  Caller callers[] = {{"updates.notes"}, {"com.example"}};
  std::atomic<int> started{0};
  std::promise<void> finished;
  std::atomic<int> done{0};
  std::vector<std::shared_ptr<Queue>> queues;
  for (Caller& caller : callers) {
    queues.push_back(Queue::Create("test.caller"));
    queues.back()->async([&] {
      // Both callers hold a pool thread before either sends.
      started.fetch_add(1);
      while (started.load() < 2) std::this_thread::yield();
      caller.answered = client.connection->retrieveUpdateListForDisplayIdentifier(
          caller.displayIdentifier, "notes", &caller.hasUpdates);
      if (done.fetch_add(1) + 1 == 2) finished.set_value();
    });
  }
  ASSERT_EQ(finished.get_future().wait_for(kTimeout), std::future_status::ready);
  EXPECT_TRUE(callers[0].answered);
  EXPECT_TRUE(callers[0].hasUpdates);
  EXPECT_TRUE(callers[1].answered);
  EXPECT_FALSE(callers[1].hasUpdates);
}

TEST(KXDaemonConnectionTest, RequestsRoundTrip) {
  TestDaemon daemon;
  DaemonClient client(daemon);
  KXDaemonConnection& connection = *client.connection;
  using Image = std::optional<std::vector<uint8_t>>;
  auto text = [](const Image& image) {
    return image ? std::string(image->begin(), image->end()) : std::string("(none)");
  };

  EXPECT_EQ(Await<Value>([&](auto done) { connection.retrieveFirstTimeExperienceTextWithReply(done); }),
            Value("Type to search"));
  EXPECT_EQ(Await<Value>([&](auto done) { connection.requestVantleParametersWithReply(done); }),
            Value(MakeDictionary({{"endpoint", "local"}, {"version", 3}})));

  KXSearchResult result;
  result.setIdentifier(12);
  result.setValue(Value("https://cards.example/12"), "card_url");
  EXPECT_EQ(text(Await<Image>([&](auto done) {
              connection.retrieveImageDataForResult(result, 3, Size{40.5, 30}, done);
            })),
            "ID=12 D=3 40.5x30");
  EXPECT_EQ(text(Await<Image>([&](auto done) {
              connection.retrieveImageDataForResultIdentifierNumber(UINT64_MAX, 26, Size{1, 2}, done);
            })),
            "ID=18446744073709551615 D=26 1x2");
  EXPECT_EQ(text(Await<Image>([&](auto done) {
              connection.retrieveImageDataWithIdentifier("photo-1", 4, Size{64, 64}, done);
            })),
            "IDI=photo-1 D=4 64x64");

  std::shared_ptr<KXSearchResult> card = Await<std::shared_ptr<KXSearchResult>>(
      [&](auto done) { connection.fetchCardDataForResult(result, done); });
  ASSERT_NE(card, nullptr);
  EXPECT_EQ(card->url(), "https://cards.example/12");
  EXPECT_EQ(card->title(), "card");
  EXPECT_EQ(card->identifier(), 77u);

  bool hasUpdates = false;
  EXPECT_TRUE(connection.retrieveUpdateListForDisplayIdentifier("updates.notes", "notes", &hasUpdates));
  EXPECT_TRUE(hasUpdates);
  EXPECT_TRUE(connection.retrieveUpdateListForDisplayIdentifier("com.example", "notes", &hasUpdates));
  EXPECT_FALSE(hasUpdates);

  connection.startRecordUpdatesForApplication("com.example.notes", "notes");
  connection.requestRecordUpdatesForApplication("com.example.notes", "notes", {"n1", "n2"});
  connection.endRecordUpdatesForApplication("com.example.notes", "notes");
  connection.activate();
  connection.deactivate();
  connection.sendFeedback(std::make_shared<KXFeedback>());
  const std::vector<Received> feedback = daemon.waitFor("SendFeedback", 1);
  ASSERT_EQ(feedback.size(), 1u);
  EXPECT_EQ(feedback[0].keys, Keys({"FB"}));
  EXPECT_EQ(feedback[0].details, "KXFeedback");
  EXPECT_EQ(daemon.received("StartRecordUpdates")[0].keys, Keys({"DI", "CAT"}));
  EXPECT_EQ(daemon.received("EndRecordUpdates")[0].keys, Keys({"DI", "CAT"}));
  const std::vector<Received> request = daemon.received("RecordUpdateRequest");
  ASSERT_EQ(request.size(), 1u);
  EXPECT_EQ(request[0].keys, Keys({"DI", "CAT", "UA"}));
  EXPECT_NE(request[0].details.find("UA = ( n1, n2 );"), std::string::npos) << request[0].details;
  daemon.waitFor("Activate", 1);
  EXPECT_EQ(daemon.waitFor("Deactivate", 1)[0].keys, Keys({}));
}

TEST(KXDaemonConnectionTest, ErrorRepliesYieldNothing) {
  TestDaemon daemon({"--reply-errors"});
  DaemonClient client(daemon);
  KXDaemonConnection& connection = *client.connection;
  using Image = std::optional<std::vector<uint8_t>>;
  KXSearchResult result;
  result.setIdentifier(12);

  EXPECT_EQ(Await<Image>([&](auto done) {
              connection.retrieveImageDataForResult(result, 3, Size{40, 30}, done);
            }),
            std::nullopt);
  std::shared_ptr<KXSearchResult> card = Await<std::shared_ptr<KXSearchResult>>(
      [&](auto done) { connection.fetchCardDataForResult(result, done); });
  ASSERT_NE(card, nullptr);
  EXPECT_FALSE(card->hasTitle());
  EXPECT_FALSE(card->hasIdentifier());
  EXPECT_TRUE(Await<Value>([&](auto done) { connection.requestVantleParametersWithReply(done); })
                  .isNil());
  // An error is an answer in time, and it says "no".
  bool hasUpdates = true;
  EXPECT_TRUE(connection.retrieveUpdateListForDisplayIdentifier("updates.notes", "notes", &hasUpdates));
  EXPECT_FALSE(hasUpdates);
  // The daemon saw the first request and closed the connection on it.
  EXPECT_EQ(daemon.received("GetResultImage").size(), 1u);
}

}  // namespace
}  // namespace kx
