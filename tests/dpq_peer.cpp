// The other process of the named-message tests.
//
//   dpq_peer serve <service>
//
// Serves <service> with a KXDPQServer whose listener events arrive on the
// main queue (on the socket a launcher passed, if any), prints "ready" once
// listening, and handles messages by name:
//   "Echo"      reply: the request's info plus "pid"; with a region also
//               "length" (its declared length) and "sum" (of its bytes)
//   "Record"    one-way: appends info "value" to the record
//   "Recorded"  reply: "values", the record; every peer that went away has
//               appended "<gone>"
//   "Hang"      never answered
//   "Push"      sends "Pushed" back with a region of info "length" bytes
//               (byte i is (i * 7 + 1) mod 256), then an empty reply
//   "Sleep"     replies after info "ms" milliseconds
//   other names append "<unknown NAME>"
//
//   dpq_peer send <service> <name> [--value V] [--shm N] [--reply] [--linger MS]
//
// Sends one message (info {"value": V}; a region of N bytes with the
// pattern above), waits for the reply with --reply and prints
// "reply <info>" or "reply null", stays connected MS milliseconds, then
// shuts the connection down and exits 0.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "kx/KXDPQServer.h"
#include "kx/main_loop.h"
#include "kx/queue.h"
#include "platform/message/shared_memory.h"

namespace {

std::mutex gMutex;
std::vector<std::string> gRecord;                     // guarded by gMutex
std::vector<std::shared_ptr<KXDPQMessage>> gHung;     // guarded by gMutex; never answered

void Append(std::string value) {
  std::lock_guard lock(gMutex);
  gRecord.push_back(std::move(value));
}

uint8_t PatternByte(size_t i) { return static_cast<uint8_t>(i * 7 + 1); }

std::string InfoString(const kx::Value& info, const char* key) {
  const std::string* s = info[key].string();
  return s ? *s : std::string();
}

int Serve(const std::string& service) {
  std::shared_ptr<KXDPQServer> server = KXDPQServer::initListenerWithServiceName(service);
  auto queue = kx::Queue::Create("dpq_peer.work");

  server->setHandlerForMessageName("Echo", [](const auto&, const std::shared_ptr<KXDPQMessage>& m) {
    kx::Value info = m->info();
    kx::Dictionary* d = info.mutableDictionary();
    (*d)["pid"] = kx::Value(static_cast<int64_t>(getpid()));
    if (const auto* bytes = static_cast<const uint8_t*>(m->sharedMemoryRegion())) {
      uint64_t sum = 0;
      for (uint64_t i = 0; i < m->sharedMemoryLength(); ++i) sum += bytes[i];
      (*d)["length"] = kx::Value(m->sharedMemoryLength());
      (*d)["sum"] = kx::Value(sum);
    }
    m->sendReply(info);
  });
  server->setHandlerForMessageName("Record", [](const auto&, const std::shared_ptr<KXDPQMessage>& m) {
    Append(InfoString(m->info(), "value"));
  });
  server->setHandlerForMessageName("Recorded", [](const auto&, const std::shared_ptr<KXDPQMessage>& m) {
    kx::Array values;
    {
      std::lock_guard lock(gMutex);
      for (const std::string& v : gRecord) values.emplace_back(v);
    }
    m->sendReply(kx::MakeDictionary({{"values", kx::Value(std::move(values))}}));
  });
  server->setHandlerForMessageName("Hang", [](const auto&, const std::shared_ptr<KXDPQMessage>& m) {
    std::lock_guard lock(gMutex);
    gHung.push_back(m);
  });
  server->setHandlerForMessageName(
      "Push", [](const std::shared_ptr<KXDPQConnection>& c, const std::shared_ptr<KXDPQMessage>& m) {
        const kx::Number* n = m->info()["length"].number();
        const size_t length = n ? static_cast<size_t>(n->uint64Value()) : 0;
        if (void* address = kx::SharedMemoryAllocator::Allocate(length)) {
          auto* bytes = static_cast<uint8_t*>(address);
          for (size_t i = 0; i < length; ++i) bytes[i] = PatternByte(i);
          auto pushed = KXDPQMessage::initWithName("Pushed");
          pushed->setSharedMemoryRegion(address);
          pushed->setSharedMemoryLength(length);
          c->sendMessage(pushed);
          kx::SharedMemoryAllocator::Free(address);
        }
        m->sendReply();
      });
  server->setHandlerForMessageName("Sleep", [queue](const auto&, const std::shared_ptr<KXDPQMessage>& m) {
    const kx::Number* ms = m->info()["ms"].number();
    queue->asyncAfter(std::chrono::milliseconds(ms ? ms->int64Value() : 0), [m] { m->sendReply(); });
  });
  server->setHandlerForMessageName(std::nullopt, [](const auto&, const std::shared_ptr<KXDPQMessage>& m) {
    Append("<unknown " + m->name().value_or("(null)") + ">");
  });
  server->setDisconnectHandler([](const auto&) { Append("<gone>"); });

  server->startListening();
  std::printf("ready\n");
  std::fflush(stdout);
  kx::main_loop::run();
  return 0;
}

int Send(const std::string& service, const std::string& name, int argc, char** argv) {
  std::optional<std::string> value;
  size_t shm = 0;
  bool wantsReply = false;
  long linger = 0;
  for (int i = 0; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--value" && i + 1 < argc) {
      value = argv[++i];
    } else if (arg == "--shm" && i + 1 < argc) {
      shm = std::stoul(argv[++i]);
    } else if (arg == "--reply") {
      wantsReply = true;
    } else if (arg == "--linger" && i + 1 < argc) {
      linger = std::stol(argv[++i]);
    } else {
      std::fprintf(stderr, "dpq_peer: unknown option %s\n", arg.c_str());
      return 2;
    }
  }
  // Made on its event queue, so the disconnect handler is in place before
  // the first event.
  auto queue = kx::Queue::Create("dpq_peer.client");
  auto ended = std::make_shared<std::promise<void>>();
  std::shared_ptr<KXDPQConnection> connection;
  queue->sync([&] {
    connection = KXDPQConnection::initWithServiceName(service, queue);
    connection->setDisconnectHandler([ended] { ended->set_value(); });
  });
  auto message = KXDPQMessage::initWithName(name);
  if (value) message->setInfo(kx::MakeDictionary({{"value", *value}}));
  void* region = shm ? kx::SharedMemoryAllocator::Allocate(shm) : nullptr;
  if (region) {
    for (size_t i = 0; i < shm; ++i) static_cast<uint8_t*>(region)[i] = PatternByte(i);
    message->setSharedMemoryRegion(region);
    message->setSharedMemoryLength(shm);
  }
  if (wantsReply) {
    auto promise = std::make_shared<std::promise<std::string>>();
    std::future<std::string> reply = promise->get_future();
    connection->sendMessage(message, [promise](const std::shared_ptr<KXDPQMessage>& r) {
      promise->set_value(r ? r->info().description() : std::string("null"));
    });
    std::printf("reply %s\n", reply.get().c_str());
  } else {
    connection->sendMessage(message);
  }
  std::fflush(stdout);
  if (region) kx::SharedMemoryAllocator::Free(region);
  std::this_thread::sleep_for(std::chrono::milliseconds(linger));
  // The shutdown barrier lets every send reach the kernel before the close;
  // the disconnect handler runs once the connection has ended either way.
  connection->shutdown();
  ended->get_future().wait();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (argc == 3 && std::strcmp(argv[1], "serve") == 0) return Serve(argv[2]);
  if (argc >= 4 && std::strcmp(argv[1], "send") == 0) return Send(argv[2], argv[3], argc - 4, argv + 4);
  std::fprintf(stderr,
               "usage: dpq_peer serve <service>\n"
               "       dpq_peer send <service> <name> [--value V] [--shm N] [--reply] [--linger MS]\n");
  return 2;
}
