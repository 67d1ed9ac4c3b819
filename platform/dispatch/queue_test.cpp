#include "kx/queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "kx/assert.h"
#include "platform/dispatch/thread_pool.h"

namespace kx {
namespace {

using namespace std::chrono_literals;

// Waits for `queue` to run everything submitted before this call.
void Flush(const std::shared_ptr<Queue>& queue) { queue->sync([] {}); }

// Replaces the assertion handler for one test and records the texts.
class RecordingAssertions {
 public:
  RecordingAssertions()
      : previous_(SetAssertionHandler([this](const AssertionFailure& f) {
          std::lock_guard lock(mu_);
          texts_.push_back(f.text);
        })) {}
  ~RecordingAssertions() { SetAssertionHandler(previous_); }
  std::vector<std::string> texts() {
    std::lock_guard lock(mu_);
    return texts_;
  }

 private:
  std::mutex mu_;
  std::vector<std::string> texts_;
  AssertionHandler previous_;
};

TEST(QueueTest, KeepsOrderAndExclusionWithManyProducers) {
  auto queue = Queue::Create("test.serial");
  constexpr int kProducers = 6, kItems = 5000;
  std::vector<int> last(kProducers, -1);  // touched only on the queue
  std::atomic<int> inFlight{0};
  std::atomic<bool> overlapped{false}, outOfOrder{false};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kItems; ++i) {
        auto check = [&, p, i] {
          if (inFlight.fetch_add(1) != 0) overlapped = true;
          if (last[p] != i - 1) outOfOrder = true;
          last[p] = i;
          inFlight.fetch_sub(1);
        };
        // Every so often a producer submits synchronously; it must still be
        // ordered after its own earlier asynchronous items.
        if (i % 500 == 499)
          queue->sync(check);
        else
          queue->async(check);
      }
    });
  }
  for (auto& t : producers) t.join();
  Flush(queue);
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(outOfOrder);
  for (int p = 0; p < kProducers; ++p) EXPECT_EQ(last[p], kItems - 1);
}

TEST(QueueTest, NestedSyncFromEveryPoolThreadDoesNotDeadlock) {
  // Effective when this test is the first to start the pool (ctest runs each
  // test in its own process); with a bigger pool the test saturates it anyway.
  setenv("KX_THREAD_POOL_SIZE", "2", 1);
  const size_t threads = ThreadPool::Shared().size();
  auto shared = Queue::Create("test.shared");
  auto inner = Queue::Create("test.inner");
  std::atomic<int> done{0};
  const int callers = static_cast<int>(threads) * 2;
  std::promise<void> finished;
  // Park every pool thread in a caller before `shared` and `inner` have a
  // chance to be drained by the pool.
  std::atomic<int> started{0};
  std::vector<std::shared_ptr<Queue>> outer;
  for (int i = 0; i < callers; ++i) outer.push_back(Queue::Create("test.outer"));
  for (int i = 0; i < callers; ++i) {
    outer[i]->async([&] {
      started.fetch_add(1);
      while (started.load() < static_cast<int>(threads)) std::this_thread::yield();
      shared->async([] {});  // pending work the pool cannot reach
      inner->async([] {});
      shared->sync([&] {
        EXPECT_TRUE(shared->isCurrent());
        inner->sync([&] { EXPECT_TRUE(inner->isCurrent() && shared->isCurrent()); });
      });
      if (done.fetch_add(1) + 1 == callers) finished.set_value();
    });
  }
  ASSERT_EQ(finished.get_future().wait_for(20s), std::future_status::ready)
      << "synchronous submissions deadlocked the pool";
}

TEST(QueueTest, DelayedWorkFiresAfterItsDelayAndCancelledWorkNever) {
  auto queue = Queue::Create("test.delayed");
  std::promise<std::chrono::steady_clock::time_point> fired;
  std::atomic<bool> cancelledRan{false};
  const auto start = std::chrono::steady_clock::now();
  auto cancelled = queue->asyncAfter(10ms, [&] { cancelledRan = true; });
  queue->asyncAfter(40ms, [&] { fired.set_value(std::chrono::steady_clock::now()); });
  cancelled->cancel();
  auto when = fired.get_future();
  ASSERT_EQ(when.wait_for(5s), std::future_status::ready);
  EXPECT_GE(when.get() - start, 40ms);
  std::this_thread::sleep_for(20ms);
  Flush(queue);
  EXPECT_FALSE(cancelledRan);
}

TEST(QueueTest, TargetedQueueRunsSerialisedWithItsTargetAndSeesItsValues) {
  auto target = Queue::Create("test.target");
  auto child = Queue::Create("test.child", Queue::QoS::Utility, target);
  static const int kKey = 0;
  target->setSpecific(&kKey, std::make_shared<int>(7));
  std::atomic<int> inFlight{0};
  std::atomic<bool> overlapped{false}, wrongContext{false};
  auto body = [&](bool onChild) {
    if (inFlight.fetch_add(1) != 0) overlapped = true;
    if (!target->isCurrent() || child->isCurrent() != onChild) wrongContext = true;
    auto v = std::static_pointer_cast<int>(Queue::GetSpecific(&kKey));
    if (!v || *v != 7) wrongContext = true;
    std::this_thread::yield();
    inFlight.fetch_sub(1);
  };
  for (int i = 0; i < 2000; ++i) {
    child->async([&] { body(true); });
    target->async([&] { body(false); });
  }
  child->sync([&] { body(true); });
  Flush(target);
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(wrongContext);
  EXPECT_EQ(child->getSpecific(&kKey), nullptr);
  EXPECT_EQ(Queue::GetSpecific(&kKey), nullptr);
  EXPECT_FALSE(target->isCurrent());
}

TEST(QueueTest, AssertsOffQueueAndOnSyncOntoItself) {
  RecordingAssertions recorded;
  auto queue = Queue::Create("test.asserting");
  KX_ASSERT_ON_QUEUE(queue);
  bool ranInPlace = false;
  queue->sync([&] {
    KX_ASSERT_ON_QUEUE(queue);
    EXPECT_EQ(Queue::Current(), queue.get());
    // Raising assertions only record here, so the work runs in place.
    queue->sync([&] { ranInPlace = true; });
  });
  EXPECT_TRUE(ranInPlace);
  auto texts = recorded.texts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0], "must run on queue test.asserting");
  EXPECT_NE(texts[1].find("test.asserting"), std::string::npos);
}

// A job's captures are destroyed while the queue is still current, so an
// owner whose destructor syncs onto the queue "unless already on it" does
// not wait on itself.
TEST(QueueTest, CapturesOfAJobDieWhileTheQueueIsCurrent) {
  auto queue = Queue::Create("captures");
  std::promise<bool> seen;
  struct Probe {
    std::shared_ptr<Queue> queue;
    std::promise<bool>* seen = nullptr;
    ~Probe() {
      if (seen) seen->set_value(queue->isCurrent());
    }
  };
  auto probe = std::make_shared<Probe>();
  probe->queue = queue;
  probe->seen = &seen;
  queue->async([probe = std::move(probe)] {});
  auto future = seen.get_future();
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(future.get());
}

TEST(QueueDeathTest, ExceptionEscapingAJobStopsTheProcess) {
  EXPECT_DEATH(
      {
        auto queue = Queue::Create("test.throwing");
        queue->async([] { throw std::runtime_error("boom"); });
        std::this_thread::sleep_for(5s);
      },
      "Uncaught exception in work on queue test.throwing: boom");
}

}  // namespace
}  // namespace kx
