// Fuzzes the daemon's request handling: the input is one datagram of the
// message service, decoded by the library (message codec, then the named
// message and its property-list info), and handed to the handler
// kx-searchd registered for its name, in process, with a real client as
// the peer that receives the answers. The index holds the sample data.
// Each input runs until its query (if it opened one) has finished.
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>

#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "kx/main_loop.h"
#include "platform/message/message_codec.h"
#include "searchd/indexer.h"
#include "searchd/server.h"

// libqalculate keeps some of what it builds for a unit conversion
// (MathStructure and GMP numbers, some through GnuTLS) without a free; that
// is the library's, and LeakSanitizer would stop every run that converts
// units on it. Leaks of our own code are still reported.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libqalculate.so\nleak:libgmp.so\nleak:libgnutls.so\n";
}

namespace {

using namespace kx::searchd;
using namespace std::chrono_literals;

std::string& RootToRemove() {
  static std::string root;
  return root;
}

class InProcessDaemon {
 public:
  InProcessDaemon() {
    char pattern[] = "/tmp/kx-searchd-fuzz.XXXXXX";
    if (!mkdtemp(pattern)) abort();
    root_ = pattern;
    RootToRemove() = root_;
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(RootToRemove(), ignored);
    });
    // Sockets, preferences and logs stay in the private tree.
    for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME",
                             "XDG_RUNTIME_DIR"})
      setenv(name, root_.c_str(), 1);
    setenv("KX_SERVICE_DIR", (root_ + "/services").c_str(), 1);
    const std::string service = "searchd-fuzz";

    writer_ = std::make_unique<Index>(root_ + "/index.db", /*readOnly=*/false);
    Indexer(*writer_, MakeSources(SourceLocations::UnderRoot(KX_EXAMPLES_DATA))).update(nullptr);
    ServerOptions options;
    options.serviceName = service;
    options.indexPath = root_ + "/index.db";
    options.feedbackPath = root_ + "/feedback.jsonl";
    options.workers = 1;
    server_ = std::make_unique<SearchServer>(options, *writer_, writerMutex_);
    server_->setDomainOrder({19, 4, 2, 5});
    server_->start();

    // A real client, so that answers travel and are dropped by it.
    clientQueue_ = kx::Queue::Create("fuzz.client");
    clientQueue_->sync([&] {
      client_ = KXDPQConnection::initWithServiceName(service, clientQueue_);
      client_->setMessageHandler([](const std::shared_ptr<KXDPQMessage>&) {});
    });
    client_->sendMessage(KXDPQMessage::initWithName("Activate"));
    // The listener takes new peers on the main queue.
    for (auto deadline = std::chrono::steady_clock::now() + 10s;
         server_->listener()->connections().empty() && std::chrono::steady_clock::now() < deadline;)
      kx::main_loop::runFor(1ms);
    if (server_->listener()->connections().empty()) abort();
    peer_ = server_->listener()->connections().front();
  }

  void handle(std::span<const uint8_t> datagram) {
    std::optional<kx::ReceivedMessage> received = kx::DecodeMessage(datagram, {});
    if (!received) return;
    std::shared_ptr<KXDPQMessage> message = KXDPQMessage::_initWithDPQMessage(received->body, peer_);
    if (!message) return;
    std::shared_ptr<const KXDPQServer::Handler> handler =
        server_->listener()->_handlerForMessageName(message->name());
    if (handler) (*handler)(peer_, message);
    while (server_->runningQueryCount() > 0) std::this_thread::sleep_for(50us);
  }

 private:
  std::string root_;
  std::unique_ptr<Index> writer_;
  std::mutex writerMutex_;
  std::unique_ptr<SearchServer> server_;
  std::shared_ptr<kx::Queue> clientQueue_;
  std::shared_ptr<KXDPQConnection> client_;
  std::shared_ptr<KXDPQConnection> peer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Kept for the whole run: it serves every input.
  static InProcessDaemon* daemon = new InProcessDaemon();
  daemon->handle({data, size});
  return 0;
}
