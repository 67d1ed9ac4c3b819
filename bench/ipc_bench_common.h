// What the IPC benchmark (ipc_bench.cpp) and its peer process
// (ipc_bench_peer.cpp) agree on: message names and payloads, the D-Bus
// names, the framing of the bare-socket contenders, and the page toucher.
//
// Every contender carries the same small request ("QID", "query", "stable")
// and the same reply ("QID", "accepted"), so that the figures differ only by
// the transport and the work each layer does on the way.
#pragma once

#include <sched.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <systemd/sd-bus.h>
#include <time.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "kx/value.h"

namespace ipcbench {

inline constexpr const char* kPingName = "Ping";
inline constexpr const char* kRegionName = "Region";
// Name only, answered with an empty reply: the message layer without the
// info codec.
inline constexpr const char* kNoInfoName = "NoInfo";
inline constexpr const char* kQidKey = "QID";
inline constexpr const char* kQueryKey = "query";
inline constexpr const char* kStableKey = "stable";
inline constexpr const char* kAcceptedKey = "accepted";
inline constexpr const char* kSumKey = "sum";
inline constexpr const char* kQueryText = "weather in paris";

inline constexpr const char* kBusName = "com.orvex.bench.Echo";
inline constexpr const char* kBusPath = "/com/orvex/bench/Echo";
inline constexpr const char* kBusInterface = "com.orvex.bench.Echo";

// The bare region datagram: the declared length as 8 bytes, the memfd in
// SCM_RIGHTS. Its answer is the 8-byte sum.
inline constexpr size_t kRegionRequestBytes = sizeof(uint64_t);

inline uint64_t NowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Pins the calling thread, and every thread and child it starts later, to
// one CPU. Called first thing in main, before any library thread exists.
inline bool PinToCpu(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  if (sched_setaffinity(0, sizeof set, &set) == 0) return true;
  std::fprintf(stderr, "cannot pin to CPU %d: %s\n", cpu, std::strerror(errno));
  return false;
}

inline kx::Value RequestInfo(uint64_t qid) {
  return kx::Dictionary{{kQidKey, kx::Value(qid)},
                        {kQueryKey, kx::Value(kQueryText)},
                        {kStableKey, kx::Value(true)}};
}

inline kx::Value ReplyInfo(uint64_t qid) {
  return kx::Dictionary{{kQidKey, kx::Value(qid)}, {kAcceptedKey, kx::Value(true)}};
}

// The "QID" of a request or reply info, 0 when it has none.
inline uint64_t QidOf(const kx::Value& info) {
  const kx::Dictionary* d = info.dictionary();
  if (!d) return 0;
  auto it = d->find(kQidKey);
  const kx::Number* n = it == d->end() ? nullptr : it->second.number();
  return n ? n->uint64Value() : 0;
}

// Reads one byte every `stride` bytes of the region, so that every page of
// a 4 KiB stride is faulted in, and returns their sum: the receiver sends
// it back and the sender checks it, so the reads cannot be optimised away
// or skipped. Never inlined, so that every receiver runs the same code
// rather than whatever the surrounding function lets the compiler make of
// the loop.
[[gnu::noinline]] inline uint64_t TouchRegion(const uint8_t* data, size_t length, size_t stride) {
  uint64_t sum = 0;
  for (size_t i = 0; i < length; i += stride) sum += data[i];
  return sum;
}

// One datagram with an optional descriptor. 0 or an errno value.
inline int SendDatagram(int socket, const void* bytes, size_t length, int fd) {
  iovec iov{const_cast<void*>(bytes), length};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  if (fd >= 0) {
    std::memset(control, 0, sizeof control);
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
  }
  for (;;) {
    if (sendmsg(socket, &msg, MSG_NOSIGNAL) >= 0) return 0;
    if (errno != EINTR) return errno;
  }
}

// Receives one datagram; `*fd` is the descriptor that came with it, or -1.
// Returns the datagram's length, or -1 at the end of the connection.
inline ssize_t ReceiveDatagram(int socket, void* buffer, size_t capacity, int* fd) {
  iovec iov{buffer, capacity};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  *fd = -1;
  for (;;) {
    const ssize_t n = recvmsg(socket, &msg, MSG_CMSG_CLOEXEC);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return -1;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS)
        std::memcpy(fd, CMSG_DATA(c), sizeof *fd);
    }
    return n;
  }
}

// The fields of the D-Bus contender's a{sv} request and reply.
struct BusInfo {
  uint64_t qid = 0;
  std::string query;
  bool flag = false;  // "stable" in requests, "accepted" in replies
};

// Reads an a{sv} dictionary into `info`, skipping unknown entries as a real
// service would, so that D-Bus decodes as much as the library does.
// Negative errno values on failure, like sd-bus.
inline int ReadBusInfo(sd_bus_message* m, BusInfo* info) {
  int r = sd_bus_message_enter_container(m, 'a', "{sv}");
  if (r < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* key = nullptr;
    const char* contents = nullptr;
    if ((r = sd_bus_message_read(m, "s", &key)) < 0) return r;
    if ((r = sd_bus_message_peek_type(m, nullptr, &contents)) < 0) return r;
    if ((r = sd_bus_message_enter_container(m, 'v', contents)) < 0) return r;
    const std::string_view k(key), type(contents);
    if (k == kQidKey && type == "t") {
      r = sd_bus_message_read(m, "t", &info->qid);
    } else if (k == kQueryKey && type == "s") {
      const char* s = nullptr;
      r = sd_bus_message_read(m, "s", &s);
      if (r >= 0) info->query = s;
    } else if ((k == kStableKey || k == kAcceptedKey) && type == "b") {
      int b = 0;
      r = sd_bus_message_read(m, "b", &b);
      info->flag = b != 0;
    } else {
      r = sd_bus_message_skip(m, contents);
    }
    if (r < 0) return r;
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;  // the variant
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;  // the entry
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(m);
}

}  // namespace ipcbench
