// Message-layer latency against its floor and against D-Bus, in one run.
//
// Request/reply round trip with a small info dictionary:
//   raw         bare SOCK_SEQPACKET ping-pong carrying datagrams of exactly
//               the size the library puts on the wire for the same request
//               and reply: the floor.
//   dpq-chained KXDPQConnection::sendMessage(message, reply) to a
//               KXDPQServer whose handler answers with sendReply; the next
//               request is sent from the reply callback.
//   dpq-blocking the same, with the calling thread waiting for each reply.
//   dpq-noinfo  dpq-chained with a name-only request and an empty reply:
//               the message layer apart from the info codec (no goal).
//   dbus        sd-bus method call Ping(a{sv}) -> a{sv} through a private
//               dbus-daemon; the client blocks in sd_bus_call_method.
// Delivery of a shared-memory region, the receiver touching every page:
//   shm-raw     the memfd passed over a bare socket, mapped privately and
//               read-only, touched, answered with the sum, unmapped.
//   shm-dpq     a SharedMemoryAllocator region attached to a KXDPQMessage;
//               the server's handler touches the mapping the library made.
//
// The client (this process) and every server run as separate processes,
// pinned: the client to --client-cpu, each server to --server-cpu, the
// broker to --broker-cpus. Round trips are timed one by one on
// CLOCK_MONOTONIC, from building the request to holding the decoded reply;
// each round runs every contender once, interleaved, so that load from
// other work on the machine spreads over all of them. Reported figures are
// medians over rounds of each round's median and 99th percentile.
//
//   ipc_bench [--rounds=5] [--round-trips=20000] [--deliveries=2000]
//             [--warm-up=1000] [--client-cpu=0] [--server-cpu=1]
//             [--broker-cpus=1] [--region-bytes=4194304] [--stride=4096]
//             [--only=raw,dpq-chained,...]
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bench/ipc_bench_common.h"
#include "bench/private_bus.h"
#include "kx/KXDPQConnection.h"
#include "platform/process/child_process.h"
#include "platform/message/message_codec.h"
#include "platform/message/message_socket.h"
#include "platform/message/shared_memory.h"
#include "base/property_list.h"

namespace {

using Samples = std::vector<uint64_t>;

struct Options {
  int rounds = 5;
  int roundTrips = 20000;
  int deliveries = 2000;
  int warmUp = 1000;
  int clientCpu = 0;
  int serverCpu = 1;
  std::string brokerCpus = "1";
  size_t regionBytes = size_t{4} << 20;
  size_t stride = 4096;
  // Comma-separated contender names; empty for all.
  std::string only;
};

bool ParseOptions(int argc, char** argv, Options* o) {
  const std::map<std::string, std::function<void(const char*)>> setters = {
      {"--rounds", [o](const char* v) { o->rounds = std::atoi(v); }},
      {"--round-trips", [o](const char* v) { o->roundTrips = std::atoi(v); }},
      {"--deliveries", [o](const char* v) { o->deliveries = std::atoi(v); }},
      {"--warm-up", [o](const char* v) { o->warmUp = std::atoi(v); }},
      {"--client-cpu", [o](const char* v) { o->clientCpu = std::atoi(v); }},
      {"--server-cpu", [o](const char* v) { o->serverCpu = std::atoi(v); }},
      {"--broker-cpus", [o](const char* v) { o->brokerCpus = v; }},
      {"--region-bytes", [o](const char* v) { o->regionBytes = std::strtoul(v, nullptr, 10); }},
      {"--stride", [o](const char* v) { o->stride = std::strtoul(v, nullptr, 10); }},
      {"--only", [o](const char* v) { o->only = std::string(",") + v + ","; }},
  };
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const size_t eq = arg.find('=');
    auto it = eq == std::string::npos ? setters.end() : setters.find(arg.substr(0, eq));
    if (it == setters.end()) {
      std::fprintf(stderr, "unknown option %s\n", argv[i]);
      return false;
    }
    it->second(argv[i] + eq + 1);
  }
  return o->rounds > 0 && o->roundTrips > 0 && o->deliveries > 0 && o->warmUp >= 0 &&
         o->regionBytes > 0 && o->stride > 0;
}

double PercentileUs(Samples samples, double p) {
  std::sort(samples.begin(), samples.end());
  const size_t index = std::min(samples.size() - 1, static_cast<size_t>(p * samples.size()));
  return static_cast<double>(samples[index]) / 1000.0;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

// One way of doing the measured exchange. `run` performs `count` timed
// exchanges, appending one sample each; false when an exchange failed or
// came back wrong.
class Contender {
 public:
  virtual ~Contender() = default;
  virtual bool run(int count, Samples* samples) = 0;
};

// ---- bare socket ------------------------------------------------------

int ConnectRaw(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
      return fd;
    if (fd >= 0) close(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return -1;
}

class RawPing : public Contender {
 public:
  RawPing(int socket, size_t requestBytes, size_t replyBytes)
      : socket_(socket), request_(requestBytes, 'q'), replyBytes_(replyBytes) {}

  bool run(int count, Samples* samples) override {
    uint8_t reply[64 * 1024];
    for (int i = 0; i < count; ++i) {
      const uint64_t start = ipcbench::NowNs();
      if (ipcbench::SendDatagram(socket_, request_.data(), request_.size(), -1) != 0) return false;
      int fd;
      const ssize_t n = ipcbench::ReceiveDatagram(socket_, reply, sizeof reply, &fd);
      const uint64_t end = ipcbench::NowNs();
      if (n != static_cast<ssize_t>(replyBytes_) || fd >= 0) return false;
      samples->push_back(end - start);
    }
    return true;
  }

 private:
  const int socket_;
  const std::string request_;
  const size_t replyBytes_;
};

class RawRegion : public Contender {
 public:
  RawRegion(int socket, int memfd, uint64_t length, uint64_t expectedSum)
      : socket_(socket), memfd_(memfd), length_(length), expectedSum_(expectedSum) {}

  bool run(int count, Samples* samples) override {
    for (int i = 0; i < count; ++i) {
      const uint64_t start = ipcbench::NowNs();
      if (ipcbench::SendDatagram(socket_, &length_, sizeof length_, memfd_) != 0) return false;
      uint64_t sum = 0;
      int fd;
      const ssize_t n = ipcbench::ReceiveDatagram(socket_, &sum, sizeof sum, &fd);
      const uint64_t end = ipcbench::NowNs();
      if (n != sizeof sum || sum != expectedSum_) return false;
      samples->push_back(end - start);
    }
    return true;
  }

 private:
  const int socket_;
  const int memfd_;
  const uint64_t length_;
  const uint64_t expectedSum_;
};

// ---- the library ------------------------------------------------------

// Builds the next request as an application would, and checks its reply.
struct Exchange {
  std::function<std::shared_ptr<KXDPQMessage>()> make;
  std::function<bool(const KXDPQMessage& reply)> check;
};

Exchange PingExchange() {
  auto qid = std::make_shared<uint64_t>(0);
  return {[qid] {
            auto message = KXDPQMessage::initWithName(ipcbench::kPingName);
            message->setInfo(ipcbench::RequestInfo(++*qid));
            return message;
          },
          [qid](const KXDPQMessage& reply) { return ipcbench::QidOf(reply.info()) == *qid; }};
}

Exchange NoInfoExchange() {
  return {[] { return KXDPQMessage::initWithName(ipcbench::kNoInfoName); },
          [](const KXDPQMessage& reply) { return reply.info().isNil(); }};
}

Exchange RegionExchange(const void* region, uint64_t length, uint64_t expectedSum) {
  return {[region, length] {
            auto message = KXDPQMessage::initWithName(ipcbench::kRegionName);
            message->setSharedMemoryRegion(region);
            message->setSharedMemoryLength(length);
            return message;
          },
          [expectedSum](const KXDPQMessage& reply) {
            const kx::Dictionary* info = reply.info().dictionary();
            if (!info) return false;
            auto it = info->find(ipcbench::kSumKey);
            return it != info->end() && it->second.number() &&
                   it->second.number()->uint64Value() == expectedSum;
          }};
}

// The next request leaves from the reply callback, on the connection's
// event queue: the path of a client that reacts to its replies.
class DpqChained : public Contender {
 public:
  DpqChained(std::shared_ptr<KXDPQConnection> connection, Exchange exchange)
      : connection_(std::move(connection)), exchange_(std::move(exchange)) {}

  bool run(int count, Samples* samples) override {
    if (count == 0) return true;
    std::unique_lock lock(mu_);
    samples_ = samples;
    remaining_ = count;
    state_ = State::Running;
    next();
    if (!cv_.wait_for(lock, std::chrono::seconds(60), [&] { return state_ != State::Running; }))
      return false;
    return state_ == State::Done;
  }

 private:
  enum class State { Running, Done, Failed };

  void next() {
    start_ = ipcbench::NowNs();
    connection_->sendMessage(exchange_.make(), [this](const std::shared_ptr<KXDPQMessage>& reply) {
      const uint64_t end = ipcbench::NowNs();
      if (!reply || !exchange_.check(*reply)) return finish(State::Failed);
      samples_->push_back(end - start_);
      if (--remaining_ == 0) return finish(State::Done);
      next();
    });
  }

  void finish(State state) {
    std::lock_guard lock(mu_);
    state_ = state;
    cv_.notify_one();
  }

  const std::shared_ptr<KXDPQConnection> connection_;
  const Exchange exchange_;
  std::mutex mu_;
  std::condition_variable cv_;
  State state_ = State::Done;
  // Touched by the chain only while it runs, and by `run` only before it
  // starts and after it finished (ordered by mu_).
  Samples* samples_ = nullptr;
  int remaining_ = 0;
  uint64_t start_ = 0;
};

// The calling thread sends and waits for each reply.
class DpqBlocking : public Contender {
 public:
  DpqBlocking(std::shared_ptr<KXDPQConnection> connection, Exchange exchange)
      : connection_(std::move(connection)), exchange_(std::move(exchange)) {}

  bool run(int count, Samples* samples) override {
    for (int i = 0; i < count; ++i) {
      const uint64_t start = ipcbench::NowNs();
      // Shared with the callback, which may still run after a timed-out wait.
      auto slot = std::make_shared<Slot>();
      connection_->sendMessage(exchange_.make(), [slot](const std::shared_ptr<KXDPQMessage>& r) {
        std::lock_guard lock(slot->mu);
        slot->reply = r;
        slot->answered = true;
        slot->cv.notify_one();
      });
      std::shared_ptr<KXDPQMessage> reply;
      {
        std::unique_lock lock(slot->mu);
        if (!slot->cv.wait_for(lock, std::chrono::seconds(10), [&] { return slot->answered; }))
          return false;
        reply = std::move(slot->reply);
      }
      const uint64_t end = ipcbench::NowNs();
      if (!reply || !exchange_.check(*reply)) return false;
      samples->push_back(end - start);
    }
    return true;
  }

 private:
  struct Slot {
    std::mutex mu;
    std::condition_variable cv;
    bool answered = false;
    std::shared_ptr<KXDPQMessage> reply;
  };

  const std::shared_ptr<KXDPQConnection> connection_;
  const Exchange exchange_;
};

// The library's wire size of a request and of its reply: the floor moves
// datagrams of exactly these sizes.
size_t WireSize(const kx::MessageDictionary& dictionary, uint8_t flags) {
  kx::OutgoingMessage out;
  if (!out.encode(dictionary)) return 0;
  out.setHeader(flags, 1, 1);
  return out.header().size() + out.body().size();
}

std::pair<size_t, size_t> PingWireSizes() {
  const uint64_t typicalQid = 1000;
  auto request = KXDPQMessage::initWithName(ipcbench::kPingName);
  request->setInfo(ipcbench::RequestInfo(typicalQid));
  auto reply = kx::MessageDictionary::Create();
  reply->set(kDKMessageInfoKey,
             kx::MessageObject::Data(kx::EncodeBinaryPropertyList(ipcbench::ReplyInfo(typicalQid))));
  return {WireSize(*request->_createDPQMessage(), kx::MessageHeader::kWantsReply),
          WireSize(*reply, kx::MessageHeader::kIsReply)};
}

// ---- D-Bus ------------------------------------------------------------

class BusCall : public Contender {
 public:
  explicit BusCall(sd_bus* bus) : bus_(bus) {}
  ~BusCall() override { sd_bus_flush_close_unref(bus_); }

  // True once the peer owns its name and answers.
  bool waitForPeer() {
    Samples ignored;
    for (int attempt = 0; attempt < 1000; ++attempt) {
      if (run(1, &ignored)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  bool run(int count, Samples* samples) override {
    for (int i = 0; i < count; ++i) {
      const uint64_t start = ipcbench::NowNs();
      sd_bus_error error = SD_BUS_ERROR_NULL;
      sd_bus_message* reply = nullptr;
      ++qid_;
      int r = sd_bus_call_method(bus_, ipcbench::kBusName, ipcbench::kBusPath,
                                 ipcbench::kBusInterface, ipcbench::kPingName, &error, &reply,
                                 "a{sv}", 3, ipcbench::kQidKey, "t", qid_, ipcbench::kQueryKey, "s",
                                 ipcbench::kQueryText, ipcbench::kStableKey, "b", 1);
      ipcbench::BusInfo info;
      if (r >= 0) r = ipcbench::ReadBusInfo(reply, &info);
      const uint64_t end = ipcbench::NowNs();
      sd_bus_message_unref(reply);
      sd_bus_error_free(&error);
      if (r < 0 || info.qid != qid_ || !info.flag) return false;
      samples->push_back(end - start);
    }
    return true;
  }

 private:
  sd_bus* const bus_;
  uint64_t qid_ = 0;
};

// ---- the run ----------------------------------------------------------

struct Row {
  const char* name;
  const char* what;
  Contender* contender;
  int count;
  std::vector<double> medians, p99s;
};

void PrintRow(const Row& row) {
  if (row.medians.empty()) return;
  std::printf("  %-13s median %8.1f us   p99 %8.1f us   %s\n", row.name, Median(row.medians),
              Median(row.p99s), row.what);
}

// A goal on the ratio of two rows' medians; nothing when either did not run.
void PrintGoal(const Row& numerator, const Row& denominator, bool atMost, double bound) {
  if (numerator.medians.empty() || denominator.medians.empty()) return;
  const double ratio = Median(numerator.medians) / Median(denominator.medians);
  const bool met = atMost ? ratio <= bound : ratio >= bound;
  std::printf("  %-13s / %-13s %6.2f   goal %s %.1f   %s\n", numerator.name, denominator.name, ratio,
              atMost ? "<=" : ">=", bound, met ? "met" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
#ifndef KX_IPC_BENCH_PEER
  (void)argc;
  (void)argv;
  std::fprintf(stderr, "ipc_bench needs ipc_bench_peer\n");
  return 1;
#else
  Options options;
  if (!ParseOptions(argc, argv, &options)) return 2;
  // Before any thread exists, so that every thread of the client inherits it.
  if (!ipcbench::PinToCpu(options.clientCpu)) return 1;
  const std::string loadBefore = LoadAverage();

  std::string root = (std::filesystem::temp_directory_path() / "kx-ipc-bench.XXXXXX").string();
  if (!mkdtemp(root.data())) return 1;
  // Declared before the peers, so it goes after them on every way out.
  struct RemoveTree {
    const std::string& path;
    ~RemoveTree() { std::filesystem::remove_all(path); }
  } removeRoot{root};
  setenv("XDG_RUNTIME_DIR", root.c_str(), 1);
  setenv("KX_SERVICE_DIR", (root + "/services").c_str(), 1);
  const std::string serverCpu = std::to_string(options.serverCpu);
  const std::string stride = std::to_string(options.stride);

  // The library's server.
  const std::string service = "ipc-bench";
  std::optional<kx::ChildProcess> dpqPeer =
      kx::ChildProcess::Spawn(KX_IPC_BENCH_PEER, {serverCpu, "dpq", service, stride});
  const std::string servicePath = *kx::ServiceSocketPath(service);
  for (int i = 0; i < 1000 && access(servicePath.c_str(), F_OK) != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  auto connection = KXDPQConnection::initWithServiceName(service, nullptr);

  // The floor, with the library's datagram sizes.
  const auto [requestBytes, replyBytes] = PingWireSizes();
  const std::string rawPath = root + "/raw";
  std::optional<kx::ChildProcess> rawPeer = kx::ChildProcess::Spawn(
      KX_IPC_BENCH_PEER, {serverCpu, "raw", rawPath, std::to_string(replyBytes), stride});
  const int rawSocket = ConnectRaw(rawPath);

  // D-Bus.
  std::optional<kx::ChildProcess> busDaemon, busPeer;
  std::unique_ptr<BusCall> bus;
  if (std::optional<std::string> address = kx::bench::StartBus(root, options.brokerCpus, &busDaemon)) {
    busPeer = kx::ChildProcess::Spawn(KX_IPC_BENCH_PEER, {serverCpu, "dbus", *address});
    if (sd_bus* b = kx::bench::ConnectBus(*address)) bus = std::make_unique<BusCall>(b);
    if (bus && !bus->waitForPeer()) bus.reset();
  }

  // The region: one allocation, delivered again and again. Each page holds
  // a different byte so that a wrong page changes the sum.
  void* region = kx::SharedMemoryAllocator::Allocate(options.regionBytes);
  // The same memfd as the library sends, so both map the same pages.
  const int memfd =
      region ? kx::SharedMemoryAllocator::DuplicateSealedDescriptor(region, options.regionBytes) : -1;
  if (memfd < 0 || !dpqPeer || !rawPeer || rawSocket < 0) {
    std::fprintf(stderr, "setup failed\n");
    return 1;
  }
  auto* bytes = static_cast<uint8_t*>(region);
  for (size_t i = 0; i < options.regionBytes; ++i) bytes[i] = static_cast<uint8_t>(i / 4096 * 7 + i);
  const uint64_t expectedSum = ipcbench::TouchRegion(bytes, options.regionBytes, options.stride);

  RawPing raw(rawSocket, requestBytes, replyBytes);
  DpqChained chained(connection, PingExchange());
  DpqBlocking blocking(connection, PingExchange());
  DpqChained noInfo(connection, NoInfoExchange());
  RawRegion shmRaw(rawSocket, memfd, options.regionBytes, expectedSum);
  DpqChained shmDpq(connection, RegionExchange(region, options.regionBytes, expectedSum));

  std::vector<Row> rows = {
      {"raw", "bare SOCK_SEQPACKET ping-pong (floor)", &raw, options.roundTrips, {}, {}},
      {"dpq-chained", "KXDPQConnection -> KXDPQServer, next request from the reply callback",
       &chained, options.roundTrips, {}, {}},
      {"dpq-blocking", "the same, caller blocks on each reply", &blocking, options.roundTrips, {}, {}},
      {"dbus", "sd-bus method call through a private dbus-daemon", bus.get(), options.roundTrips,
       {}, {}},
      {"dpq-noinfo", "dpq-chained without info dictionaries (no property-list coding)", &noInfo,
       options.roundTrips, {}, {}},
      {"shm-raw", "memfd over a bare socket, mapped and touched (bare operation)", &shmRaw,
       options.deliveries, {}, {}},
      {"shm-dpq", "allocator region in a KXDPQMessage, touched by the handler", &shmDpq,
       options.deliveries, {}, {}},
  };

  std::printf("ipc_bench: client on CPU %d, servers on CPU %d, dbus-daemon on CPUs %s\n",
              options.clientCpu, options.serverCpu, options.brokerCpus.c_str());
  std::printf("request %zu bytes, reply %zu bytes on the wire; region %zu bytes, touched every %zu bytes\n",
              requestBytes, replyBytes, options.regionBytes, options.stride);
  std::printf("%d rounds of %d round trips / %d deliveries (after %d to warm up)\n", options.rounds,
              options.roundTrips, options.deliveries, options.warmUp);
  std::printf("load average before: %s\n", loadBefore.c_str());
  std::fflush(stdout);

  for (Row& row : rows) {
    if (!options.only.empty() && options.only.find(std::string(",") + row.name + ",") == std::string::npos)
      row.contender = nullptr;
  }
  for (int round = 0; round < options.rounds; ++round) {
    for (Row& row : rows) {
      if (!row.contender) continue;
      Samples samples;
      samples.reserve(static_cast<size_t>(std::max(row.count, options.warmUp)));
      if (!row.contender->run(options.warmUp, &samples)) {
        std::fprintf(stderr, "%s: exchange failed while warming up\n", row.name);
        return 1;
      }
      samples.clear();
      if (!row.contender->run(row.count, &samples)) {
        std::fprintf(stderr, "%s: exchange failed\n", row.name);
        return 1;
      }
      row.medians.push_back(PercentileUs(samples, 0.5));
      row.p99s.push_back(PercentileUs(samples, 0.99));
      std::printf("round %d %-13s median %8.1f us   p99 %8.1f us\n", round + 1, row.name,
                  row.medians.back(), row.p99s.back());
      std::fflush(stdout);
    }
  }

  std::printf("\nmedian over %d rounds:\n", options.rounds);
  for (const Row& row : rows) PrintRow(row);
  std::printf("goals (ratios of medians):\n");
  auto row = [&rows](std::string_view name) -> const Row& {
    return *std::find_if(rows.begin(), rows.end(), [&](const Row& r) { return r.name == name; });
  };
  PrintGoal(row("dpq-chained"), row("raw"), true, 1.5);
  PrintGoal(row("dpq-blocking"), row("raw"), true, 1.5);
  PrintGoal(row("dbus"), row("dpq-chained"), false, 5.0);
  PrintGoal(row("dbus"), row("dpq-blocking"), false, 5.0);
  PrintGoal(row("shm-dpq"), row("shm-raw"), true, 1.2);
  std::printf("load average after: %s\n", LoadAverage().c_str());

  connection->shutdown();
  close(rawSocket);
  close(memfd);
  bus.reset();
  busPeer.reset();
  busDaemon.reset();
  rawPeer.reset();
  dpqPeer.reset();
  return 0;
#endif
}
