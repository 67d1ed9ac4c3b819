#include "platform/message/message_write_waiter.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <vector>

#include "platform/message/message_fd.h"

namespace kx {
namespace {

using namespace std::chrono_literals;

// A connected pair whose first end has no room left.
struct FullPair {
  FullPair() {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
    writer.reset(sv[0]);
    reader.reset(sv[1]);
    const std::vector<char> chunk(16 * 1024, 'x');
    while (send(writer.get(), chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
    }
  }
  void drain() {
    char buffer[64 * 1024];
    while (recv(reader.get(), buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
  }
  ScopedFd writer, reader;
};

TEST(WritableWaiterTest, CallsOnceWhenRoomAppearsWithoutTouchingFlags) {
  FullPair pair;
  const int flags = fcntl(pair.writer.get(), F_GETFL);
  auto fired = std::make_shared<std::promise<void>>();
  std::future<void> future = fired->get_future();
  ASSERT_TRUE(WritableWaiter::Shared().watch(pair.writer.get(), [fired] { fired->set_value(); }));
  EXPECT_FALSE(
      WritableWaiter::Shared().watch(pair.writer.get(), [] {}));  // one watch per descriptor
  EXPECT_EQ(future.wait_for(100ms), std::future_status::timeout);
  pair.drain();
  EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(fcntl(pair.writer.get(), F_GETFL), flags);

  // Writable at once: reported although no edge follows the watch.
  auto again = std::make_shared<std::promise<void>>();
  ASSERT_TRUE(WritableWaiter::Shared().watch(pair.writer.get(), [again] { again->set_value(); }));
  EXPECT_EQ(again->get_future().wait_for(10s), std::future_status::ready);
}

TEST(WritableWaiterTest, CancelledWatchesNeverFire) {
  FullPair pair;
  auto fired = std::make_shared<std::atomic<bool>>(false);
  ASSERT_TRUE(WritableWaiter::Shared().watch(pair.writer.get(), [fired] { *fired = true; }));
  WritableWaiter::Shared().cancel(pair.writer.get());
  pair.drain();
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(*fired);
}

}  // namespace
}  // namespace kx
