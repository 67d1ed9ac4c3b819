#include "kx/main_loop.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kx/queue.h"

namespace kx {
namespace {

using namespace std::chrono_literals;

bool Readable(std::chrono::milliseconds timeout = 0ms) {
  pollfd p{main_loop::fd(), POLLIN, 0};
  return poll(&p, 1, static_cast<int>(timeout.count())) == 1 && (p.revents & POLLIN);
}

TEST(MainLoopTest, WorkRunsOnlyWhenDrainedAndTheDescriptorSaysWhen) {
  EXPECT_FALSE(Readable());
  EXPECT_EQ(main_loop::drain(), 0u);
  std::vector<int> order;  // touched only on the main queue
  const auto self = std::this_thread::get_id();
  std::thread producer([&] {
    for (int i = 0; i < 3; ++i)
      Queue::Main()->async([&, i] {
        EXPECT_EQ(std::this_thread::get_id(), self);
        EXPECT_TRUE(Queue::Main()->isCurrent());
        order.push_back(i);
      });
  });
  producer.join();
  EXPECT_TRUE(Readable());
  std::this_thread::sleep_for(20ms);
  EXPECT_TRUE(order.empty()) << "main-queue work ran without being drained";
  // Work queued by a running item waits for the next drain.
  Queue::Main()->async([&] { Queue::Main()->async([&] { order.push_back(3); }); });
  EXPECT_EQ(main_loop::drain(), 4u);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_TRUE(Readable());
  EXPECT_EQ(main_loop::drain(), 1u);
  EXPECT_FALSE(Readable());
  EXPECT_EQ(order.size(), 4u);
}

TEST(MainLoopTest, DelayedWorkMakesTheDescriptorReadableWhenDue) {
  bool ran = false;
  const auto start = std::chrono::steady_clock::now();
  Queue::Main()->asyncAfter(50ms, [&] { ran = true; });
  auto cancelled = Queue::Main()->asyncAfter(10ms, [] { ADD_FAILURE() << "cancelled work ran"; });
  cancelled->cancel();
  EXPECT_FALSE(Readable());
  ASSERT_TRUE(Readable(5000ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  EXPECT_EQ(main_loop::drain(), 1u);
  EXPECT_TRUE(ran);
  EXPECT_FALSE(Readable(30ms));
}

TEST(MainLoopTest, RunServesSyncCallersUntilStopped) {
  auto worker = Queue::Create("test.worker");
  std::atomic<int> served{0};
  bool afterStop = false;
  std::thread::id mainThread = std::this_thread::get_id(), ranOn;
  worker->async([&] {
    // Synchronous work for the main queue runs on the thread that drains it.
    Queue::Main()->sync([&] { ranOn = std::this_thread::get_id(); });
    for (int i = 0; i < 10; ++i) Queue::Main()->async([&] { served.fetch_add(1); });
    Queue::Main()->async([&] {
      // Pending when stop is called: `run` must return without it.
      Queue::Main()->async([&] { afterStop = true; });
      main_loop::stop();
    });
  });
  main_loop::run();
  EXPECT_EQ(ranOn, mainThread);
  EXPECT_EQ(served.load(), 10);
  EXPECT_FALSE(afterStop);
  EXPECT_TRUE(Readable());
  EXPECT_EQ(main_loop::drain(), 1u);
  EXPECT_TRUE(afterStop);

  // A timed run with nothing to do returns at its deadline.
  const auto start = std::chrono::steady_clock::now();
  main_loop::runFor(30ms);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

}  // namespace
}  // namespace kx
