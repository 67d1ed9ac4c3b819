// A scriptable search daemon for the daemon-client tests and benchmarks.
//
//   test_daemon --service <name> --log <file> [--silent | --reply-errors]
//               [--per-query-scripts] [--empty-query-script <script>]
//
// Serves <name> with a KXDPQServer (on the socket a launcher passed, if
// any) and answers the client's requests:
//   "OpenQuery"   empty reply, then runs the query text ("QS") as a script
//   "CloseQuery", "Activate"  empty reply
//   "RequestFTE"  {"FTE": "Type to search"}
//   "RequestVantleParameters"  {"VANPARAM": {"endpoint": "local", "version": 3}}
//   "GetResultImage"  {"UA": the bytes of "ID=<n>" or "IDI=<s>", then
//                 " D=<d> <width>x<height>"}
//   "RequestCardData"  {"R": a coded result whose url is the request's
//                 "URL", title "card", identifier 77}
//   "UpdateList"  {"UL": true} when "DI" starts with "updates.", else an
//                 empty reply
//   anything else is recorded only.
// --silent answers nothing (requests stay pending); --reply-errors closes
// the peer's connection instead of answering, so the client's awaited
// replies end in errors. --per-query-scripts runs each query's script on a
// queue of its own, so a query that sleeps holds back only its own batches
// and batches of different queries may arrive in any order.
// --empty-query-script gives queries with an empty text (zero-keyword
// queries) a script to run.
//
// Every received message is appended to <file> as one line
//   <pid> TAB <name> TAB <info keys, comma-separated> TAB <details>
// where details is the info's description on one line, or for
// "SendFeedback" the class name of the decoded record. Each daemon start
// appends "<pid> TAB start".
//
// Query scripts: words separated by blanks, run in order on one queue:
//   results:D:N     a batch of one section of domain D with N results
//                   titled r1..rN with identifiers 1..N. Attributes follow,
//                   each after a ';': section attributes di=<display id>,
//                   flags=<n>, cat=<category>; result attributes
//                   r.<field>=v1|v2|... give result i the value v(i mod
//                   count), an empty value leaving the field unset. Fields:
//                   title, url, bundle (bundleID), sd (searchResultDomain),
//                   and the server properties header (section_header),
//                   type, fbr, adam (adam_id), bundle_id, maps
//                   (maps_result_type), more, more_url, card (one row card
//                   "key@url").
//   A+B+...         one batch holding the sections A, B... (each a
//                   results word)
//   reset           "SearchReset"
//   complete[:F:W]  "SearchComplete", with "FBQ" F and "WFBQ" W when given
//   error[:C]       "SearchError", with "ERR" C when given
//   stray:N         N one-result batches for the query id + 1000
//   noqid:N         N one-result batches without "QID"
//   sleep:MS        a pause
// Other words are ignored, so a plain text makes a query that gets no
// answer.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kx/KXFeedback.h"
#include "feedback/feedback_archive.h"
#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "kx/KXDPQServer.h"
#include "kx/format.h"
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "kx/main_loop.h"
#include "tests/support/daemon_event_log.h"
#include "kx/queue.h"
#include "kx/KXSearchResultSerializer.h"

namespace {

using Connection = std::shared_ptr<KXDPQConnection>;
using Message = std::shared_ptr<KXDPQMessage>;

enum class Mode { Answer, Silent, ReplyErrors };

struct Options {
  std::string service;
  std::string log;
  Mode mode = Mode::Answer;
  bool perQueryScripts = false;
  std::string emptyQueryScript;
};

std::mutex gHeldMutex;
std::vector<Message> gHeld;  // guarded by gHeldMutex; requests never answered

void Record(const std::string& line) { kx::test::RecordDaemonEvent(line); }

std::string OneLine(std::string text) {
  std::string out;
  bool blank = false;
  for (char c : text) {
    const bool space = c == '\n' || c == ' ' || c == '\t';
    if (space && blank) continue;
    out += space ? ' ' : c;
    blank = space;
  }
  return out;
}

void RecordReceived(const KXDPQMessage& message) {
  std::string keys;
  if (const kx::Dictionary* info = message.info().dictionary())
    for (const auto& [key, value] : *info) keys += (keys.empty() ? "" : ",") + key;
  std::string details = OneLine(message.info().description());
  if (message.name() == "SendFeedback") {
    const kx::Value::Bytes* archive = message.info()["FB"].data();
    std::shared_ptr<KXFeedback> record =
        archive ? kx::UnarchivedFeedbackWithData(*archive) : nullptr;
    details = record ? record->className() : "undecodable";
  }
  Record(message.name().value_or("(null)") + "\t" + keys + "\t" + details);
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, separator);)
    if (!part.empty() || separator == ':') parts.push_back(part);
  return parts;
}

long Number(const std::vector<std::string>& parts, size_t index, long fallback) {
  return index < parts.size() ? std::strtol(parts[index].c_str(), nullptr, 10) : fallback;
}

// Applies a "r.<field>=v1|v2" attribute to the result of 0-based `index`.
void SetResultField(KXSearchResult& result, const std::string& field,
                    const std::vector<std::string>& values, size_t index) {
  if (values.empty()) return;
  const std::string& value = values[index % values.size()];
  if (value.empty()) return;
  if (field == "title") {
    result.setTitle(value);
  } else if (field == "url") {
    result.setUrl(value);
  } else if (field == "bundle") {
    result.setBundleID(value);
  } else if (field == "sd") {
    result.setSearchResultDomain(static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10)));
  } else if (field == "card") {
    const size_t at = value.find('@');
    kx::Dictionary card = {{"type", "row"}, {"key", value.substr(0, at)}};
    if (at != std::string::npos) card["url"] = value.substr(at + 1);
    result.setValue(kx::Array{kx::Value(std::move(card))}, "card_sections");
  } else {
    static const std::pair<const char*, const char*> kServerKeys[] = {
        {"header", "section_header"}, {"type", "type"}, {"fbr", "fbr"}, {"adam", "adam_id"},
        {"bundle_id", "bundle_id"}, {"maps", "maps_result_type"}, {"more", "more"},
        {"more_url", "more_url"}};
    for (const auto& [name, key] : kServerKeys)
      if (field == name) result.setValue(kx::Value(value), key);
  }
}

// One section from a "results:D:N;attr=value;..." word.
std::shared_ptr<KXSearchResultSection> MakeSection(const std::string& word) {
  const std::vector<std::string> attributes = Split(word, ';');
  const std::vector<std::string> parts = Split(attributes.empty() ? word : attributes[0], ':');
  auto section = std::make_shared<KXSearchResultSection>();
  section->setDomain(static_cast<uint32_t>(Number(parts, 1, 0)));
  const long count = Number(parts, 2, 1);
  std::vector<std::shared_ptr<KXSearchResult>> results;
  for (long i = 1; i <= count; ++i) {
    auto result = std::make_shared<KXSearchResult>();
    result->setTitle("r" + std::to_string(i));
    result->setIdentifier(static_cast<uint64_t>(i));
    results.push_back(result);
  }
  for (size_t a = 1; a < attributes.size(); ++a) {
    const std::string& attribute = attributes[a];
    const size_t equals = attribute.find('=');
    if (equals == std::string::npos) continue;
    const std::string name = attribute.substr(0, equals);
    const std::string value = attribute.substr(equals + 1);
    if (name == "di") {
      section->setDisplayIdentifier(value);
    } else if (name == "cat") {
      section->setCategory(value);
    } else if (name == "flags") {
      section->setFlags(static_cast<int32_t>(std::strtol(value.c_str(), nullptr, 0)));
    } else if (name.rfind("r.", 0) == 0) {
      std::vector<std::string> values;
      std::stringstream in(value);
      for (std::string v; std::getline(in, v, '|');) values.push_back(v);
      if (!value.empty() && value.back() == '|') values.emplace_back();
      for (size_t i = 0; i < results.size(); ++i)
        SetResultField(*results[i], name.substr(2), values, i);
    }
  }
  for (const auto& result : results) section->addResults(result);
  return section;
}

void SendSections(const Connection& peer, std::optional<uint32_t> qid,
                  const std::vector<std::shared_ptr<KXSearchResultSection>>& sections) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, /*inProc=*/false);
  for (const auto& section : sections) serializer->appendSection(section);
  serializer->serialize();
  auto message = KXDPQMessage::initWithName("SearchResults");
  if (qid) message->setInfo(kx::MakeDictionary({{"QID", kx::Number::UInt32(*qid)}}));
  message->setSharedMemoryRegion(serializer->byteVector());
  message->setSharedMemoryLength(serializer->byteVectorCount());
  // The message layer sends a sealed duplicate of the region's descriptor
  // before this returns, so the serializer may go.
  peer->sendMessage(message);
}

void SendBatch(const Connection& peer, std::optional<uint32_t> qid, uint32_t domain, long count) {
  SendSections(peer, qid, {MakeSection("results:" + std::to_string(domain) + ":" +
                                       std::to_string(count))});
}

void Send(const Connection& peer, const char* name, kx::Dictionary info) {
  auto message = KXDPQMessage::initWithName(name);
  message->setInfo(std::move(info));
  peer->sendMessage(message);
}

void RunScript(const Connection& peer, uint32_t qid, const std::string& script) {
  for (const std::string& word : Split(script, ' ')) {
    const std::vector<std::string> parts = Split(word, ':');
    const std::string& command = parts[0];
    kx::Dictionary info = {{"QID", kx::Number::UInt32(qid)}};
    if (command.rfind("results", 0) == 0) {
      std::vector<std::shared_ptr<KXSearchResultSection>> sections;
      for (const std::string& part : Split(word, '+')) sections.push_back(MakeSection(part));
      SendSections(peer, qid, sections);
    } else if (command == "reset") {
      Send(peer, "SearchReset", info);
    } else if (command == "complete") {
      if (parts.size() >= 3) {
        info["FBQ"] = parts[1];
        info["WFBQ"] = parts[2];
      }
      Send(peer, "SearchComplete", info);
    } else if (command == "error") {
      if (parts.size() >= 2) info["ERR"] = kx::Number::UInt32(static_cast<uint32_t>(Number(parts, 1, 0)));
      Send(peer, "SearchError", info);
    } else if (command == "stray") {
      for (long i = Number(parts, 1, 1); i > 0; --i) SendBatch(peer, qid + 1000, 1, 1);
    } else if (command == "noqid") {
      for (long i = Number(parts, 1, 1); i > 0; --i) SendBatch(peer, std::nullopt, 1, 1);
    } else if (command == "sleep") {
      std::this_thread::sleep_for(std::chrono::milliseconds(Number(parts, 1, 0)));
    }
  }
}

std::string ImageDescription(const kx::Value& info) {
  std::string id;
  if (const kx::Number* n = info["ID"].number()) id = "ID=" + std::to_string(n->uint64Value());
  if (const std::string* s = info["IDI"].string()) id = "IDI=" + *s;
  const kx::Number* d = info["D"].number();
  const kx::Number* w = info["ImageWidth"].number();
  const kx::Number* h = info["ImageHeight"].number();
  return kx::Format("%s D=%d %gx%g", id, d ? d->intValue() : -1, w ? w->doubleValue() : -1.0,
                    h ? h->doubleValue() : -1.0);
}

kx::Value CardReply(const kx::Value& info) {
  KXSearchResult card;
  if (const std::string* url = info["URL"].string()) card.setUrl(*url);
  card.setTitle("card");
  card.setIdentifier(77);
  return kx::MakeDictionary({{"R", kx::Value(card.data())}});
}

// The reply to a request, or nil for an empty one.
kx::Value ReplyFor(const KXDPQMessage& message) {
  const std::string name = message.name().value_or("");
  const kx::Value& info = message.info();
  if (name == "RequestFTE") return kx::MakeDictionary({{"FTE", "Type to search"}});
  if (name == "RequestVantleParameters") {
    kx::Dictionary parameters = {{"endpoint", "local"}, {"version", 3}};
    return kx::MakeDictionary({{"VANPARAM", std::move(parameters)}});
  }
  if (name == "GetResultImage") {
    const std::string bytes = ImageDescription(info);
    return kx::MakeDictionary({{"UA", kx::Value::DataFrom(bytes.data(), bytes.size())}});
  }
  if (name == "RequestCardData") return CardReply(info);
  if (name == "UpdateList") {
    const std::string* di = info["DI"].string();
    if (di && di->rfind("updates.", 0) == 0) return kx::MakeDictionary({{"UL", true}});
  }
  return kx::Value();
}

int Serve(const Options& options) {
  std::shared_ptr<KXDPQServer> server = KXDPQServer::initListenerWithServiceName(options.service);
  auto scripts = kx::Queue::Create("test_daemon.scripts");
  const Mode mode = options.mode;
  const bool perQueryScripts = options.perQueryScripts;
  const std::string emptyQueryScript = options.emptyQueryScript;

  server->setHandlerForMessageName(
      std::nullopt,
      [scripts, mode, perQueryScripts, emptyQueryScript](const Connection& peer,
                                                         const Message& message) {
        RecordReceived(*message);
        if (!message->needsReply()) return;
        if (mode == Mode::Silent) {
          std::lock_guard lock(gHeldMutex);
          gHeld.push_back(message);
          return;
        }
        if (mode == Mode::ReplyErrors) {
          peer->shutdown();
          return;
        }
        message->sendReply(ReplyFor(*message));
        if (message->name() == "OpenQuery") {
          const kx::Number* qid = message->info()["QID"].number();
          const std::string* text = message->info()["QS"].string();
          if (qid && text) {
            auto queue = perQueryScripts ? kx::Queue::Create("test_daemon.query") : scripts;
            queue->async([peer, id = qid->uint32Value(),
                          script = text->empty() ? emptyQueryScript : *text] {
              RunScript(peer, id, script);
            });
          }
        }
      });

  server->startListening();
  Record("start");
  kx::main_loop::run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--service" && i + 1 < argc) {
      options.service = argv[++i];
    } else if (arg == "--log" && i + 1 < argc) {
      options.log = argv[++i];
    } else if (arg == "--silent") {
      options.mode = Mode::Silent;
    } else if (arg == "--reply-errors") {
      options.mode = Mode::ReplyErrors;
    } else if (arg == "--per-query-scripts") {
      options.perQueryScripts = true;
    } else if (arg == "--empty-query-script" && i + 1 < argc) {
      options.emptyQueryScript = argv[++i];
    } else {
      options.service.clear();
      break;
    }
  }
  if (options.service.empty() || options.log.empty()) {
    std::fprintf(stderr,
                 "usage: test_daemon --service <name> --log <file> [--silent | --reply-errors]"
                 " [--per-query-scripts] [--empty-query-script <script>]\n");
    return 2;
  }
  if (!kx::test::OpenDaemonEventLog(options.log, "test_daemon")) return 1;
  return Serve(options);
}
