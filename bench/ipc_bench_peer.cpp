// The serving end of every IPC benchmark contender, one process per
// contender, pinned to one CPU before it starts any thread:
//
//   ipc_bench_peer <cpu> dpq <service> <stride>
//       KXDPQServer answering "Ping" (echoes the QID), "NoInfo" (empty
//       reply) and "Region" (touches the received region every <stride>
//       bytes and answers the sum).
//   ipc_bench_peer <cpu> raw <socket path> <reply bytes> <stride>
//       Bare SOCK_SEQPACKET: answers a datagram without descriptor with
//       <reply bytes> bytes; maps a datagram's memfd, touches it and answers
//       the 8-byte sum.
//   ipc_bench_peer <cpu> dbus <bus address>
//       sd-bus object with the method Ping(a{sv}) -> a{sv}.
//
// The peer runs until it is terminated or its client goes away.
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/ipc_bench_common.h"
#include "kx/KXDPQServer.h"

namespace {

int ServeDpq(const char* service, size_t stride) {
  auto server = KXDPQServer::initListenerWithServiceName(service, kx::Queue::Create("bench.listener"));
  server->setHandlerForMessageName(
      ipcbench::kPingName,
      [](const std::shared_ptr<KXDPQConnection>&, const std::shared_ptr<KXDPQMessage>& message) {
        message->sendReply(ipcbench::ReplyInfo(ipcbench::QidOf(message->info())));
      });
  server->setHandlerForMessageName(
      ipcbench::kNoInfoName,
      [](const std::shared_ptr<KXDPQConnection>&, const std::shared_ptr<KXDPQMessage>& message) {
        message->sendReply();
      });
  server->setHandlerForMessageName(
      ipcbench::kRegionName,
      [stride](const std::shared_ptr<KXDPQConnection>&, const std::shared_ptr<KXDPQMessage>& message) {
        const auto* data = static_cast<const uint8_t*>(message->sharedMemoryRegion());
        const uint64_t sum =
            data ? ipcbench::TouchRegion(data, message->sharedMemoryLength(), stride) : 0;
        message->sendReply(kx::Dictionary{{ipcbench::kSumKey, kx::Value(sum)}});
      });
  server->startListening();
  for (;;) pause();
}

// Maps a received memfd the way the library does (private, read-only),
// touches it and answers the sum; unmapping comes after the answer, as it
// does in the library where the message is released after its handler.
bool AnswerRegion(int socket, int fd, const uint8_t* request, size_t length, size_t stride) {
  uint64_t declared = 0;
  if (length != ipcbench::kRegionRequestBytes) return false;
  std::memcpy(&declared, request, sizeof declared);
  void* address = mmap(nullptr, declared, PROT_READ, MAP_PRIVATE, fd, 0);
  if (address == MAP_FAILED) return false;
  const uint64_t sum = ipcbench::TouchRegion(static_cast<const uint8_t*>(address), declared, stride);
  const int error = ipcbench::SendDatagram(socket, &sum, sizeof sum, -1);
  munmap(address, declared);
  close(fd);
  return error == 0;
}

int ServeRaw(const char* path, size_t replyBytes, size_t stride) {
  const int listening = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  if (listening < 0 || bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listening, 1) != 0) {
    std::perror("raw peer: listen");
    return 1;
  }
  const int socket = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
  if (socket < 0) return 1;
  std::string reply(replyBytes, '\0');
  uint8_t request[64 * 1024];
  for (;;) {
    int fd = -1;
    const ssize_t n = ipcbench::ReceiveDatagram(socket, request, sizeof request, &fd);
    if (n < 0) return 0;
    const bool ok = fd >= 0 ? AnswerRegion(socket, fd, request, static_cast<size_t>(n), stride)
                            : ipcbench::SendDatagram(socket, reply.data(), reply.size(), -1) == 0;
    if (!ok) return 1;
  }
}

int OnBusPing(sd_bus_message* m, void*, sd_bus_error*) {
  ipcbench::BusInfo request;
  const int r = ipcbench::ReadBusInfo(m, &request);
  if (r < 0) return r;
  return sd_bus_reply_method_return(m, "a{sv}", 2, ipcbench::kQidKey, "t", request.qid,
                                    ipcbench::kAcceptedKey, "b", 1);
}

const sd_bus_vtable kBusVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Ping", "a{sv}", "a{sv}", OnBusPing, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int ServeBus(const char* address) {
  sd_bus* bus = nullptr;
  int r = sd_bus_new(&bus);
  if (r >= 0) r = sd_bus_set_address(bus, address);
  if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
  if (r >= 0) r = sd_bus_start(bus);
  if (r >= 0)
    r = sd_bus_add_object_vtable(bus, nullptr, ipcbench::kBusPath, ipcbench::kBusInterface,
                                 kBusVtable, nullptr);
  if (r >= 0) r = sd_bus_request_name(bus, ipcbench::kBusName, 0);
  while (r >= 0) {
    r = sd_bus_process(bus, nullptr);
    if (r == 0) r = sd_bus_wait(bus, UINT64_MAX);
  }
  std::fprintf(stderr, "dbus peer: %s\n", std::strerror(-r));
  sd_bus_flush_close_unref(bus);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || !ipcbench::PinToCpu(std::atoi(argv[1]))) {
    std::fprintf(stderr, "usage: ipc_bench_peer <cpu> dpq|raw|dbus ...\n");
    return 2;
  }
  const std::string mode = argv[2];
  if (mode == "dpq" && argc == 5) return ServeDpq(argv[3], std::strtoul(argv[4], nullptr, 10));
  if (mode == "raw" && argc == 6)
    return ServeRaw(argv[3], std::strtoul(argv[4], nullptr, 10), std::strtoul(argv[5], nullptr, 10));
  if (mode == "dbus" && argc == 4) return ServeBus(argv[3]);
  std::fprintf(stderr, "ipc_bench_peer: bad arguments for %s\n", mode.c_str());
  return 2;
}
