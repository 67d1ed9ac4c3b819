// Test-only support for the named-message tests: waiting for messages and
// replies, clients made on their event queue, the dpq_peer helper process,
// and the lines of the diagnostic log.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kx/KXDPQConnection.h"
#include "kx/KXDPQMessage.h"
#include "kx/log.h"
#include "platform/process/helper_process_testing.h"
#include "platform/message/message_socket.h"
#include "support/log_file.h"
#include "platform/message/message_connection.h"
#include "platform/message/message_object.h"
#include "platform/message/shared_memory.h"

namespace kx::test {

using namespace std::chrono_literals;
inline constexpr auto kTimeout = 10s;

// Items handed over from queues, in arrival order.
template <class T>
class Inbox {
 public:
  void add(T item) {
    std::lock_guard lock(mu_);
    items_.push_back(std::move(item));
    cv_.notify_all();
  }
  bool waitFor(size_t count, std::chrono::milliseconds timeout = kTimeout) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, timeout, [&] { return items_.size() >= count; });
  }
  std::vector<T> items() {
    std::lock_guard lock(mu_);
    return items_;
  }
  size_t size() {
    std::lock_guard lock(mu_);
    return items_.size();
  }
  void clear() {
    std::lock_guard lock(mu_);
    items_.clear();
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<T> items_;
};

using MessageInbox = Inbox<std::shared_ptr<KXDPQMessage>>;

inline std::shared_ptr<KXDPQMessage> Named(const std::string& name, kx::Value info = {}) {
  auto message = KXDPQMessage::initWithName(name);
  message->setInfo(std::move(info));
  return message;
}

// A client connection made on its event queue, so that its handlers are in
// place before its first event. Received messages land in `messages`, each
// disconnect call in `disconnects`.
struct Client {
  explicit Client(const std::string& service) {
    queue->sync([&] {
      connection = KXDPQConnection::initWithServiceName(service, queue);
      connection->setMessageHandler([inbox = messages](const std::shared_ptr<KXDPQMessage>& m) {
        inbox->add(m);
      });
      connection->setDisconnectHandler([inbox = disconnects] { inbox->add(1); });
    });
  }
  ~Client() {
    // Kept messages hold their connection: dropping them breaks the cycle
    // connection -> handler -> inbox -> message -> connection.
    messages->clear();
    if (connection) connection->shutdown();
  }

  // Sends `message` and waits for the reply callback; nullopt when it did
  // not run in time.
  std::optional<std::shared_ptr<KXDPQMessage>> request(const std::shared_ptr<KXDPQMessage>& message) {
    auto promise = std::make_shared<std::promise<std::shared_ptr<KXDPQMessage>>>();
    std::future<std::shared_ptr<KXDPQMessage>> future = promise->get_future();
    connection->sendMessage(message, [promise](const std::shared_ptr<KXDPQMessage>& reply) {
      promise->set_value(reply);
    });
    if (future.wait_for(kTimeout) != std::future_status::ready) return std::nullopt;
    return future.get();
  }

  std::shared_ptr<kx::Queue> queue = kx::Queue::Create("test.client");
  std::shared_ptr<KXDPQConnection> connection;
  std::shared_ptr<MessageInbox> messages = std::make_shared<MessageInbox>();
  std::shared_ptr<Inbox<int>> disconnects = std::make_shared<Inbox<int>>();
};

// `dpq_peer serve <service>` in a process of its own.
struct PeerServer {
  explicit PeerServer(const std::string& service) : process("dpq_peer", {"serve", service}) {
    EXPECT_EQ(process.ReadLine(), "ready");
  }
  HelperProcess process;
};

inline void WaitForServiceSocket(const std::string& service) {
  const std::string path = *ServiceSocketPath(service);
  for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
       access(path.c_str(), F_OK) != 0 && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(10ms);
}

// How many lines of this process's diagnostic log end with `text`.
inline size_t LoggedCount(const std::string& text) {
  std::ifstream in(logFilePathWithNumber(LogDirectoryPath(), 0), std::ios::binary);
  size_t n = 0;
  for (std::string line; std::getline(in, line);)
    n += line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0;
  return n;
}

// The bytes of shared regions in these tests: byte i is (i * 7 + 1) mod 256.
inline uint8_t PatternByte(size_t i) { return static_cast<uint8_t>(i * 7 + 1); }

inline int64_t Int(const kx::Value& info, const char* key) {
  const kx::Number* n = info[key].number();
  return n ? n->int64Value() : -1;
}

}  // namespace kx::test
