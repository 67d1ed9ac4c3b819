#include "platform/notify/notify.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/process/child_process.h"
#include "kx/queue.h"
#include "tests/support/test_environment.h"

namespace kx::notify {
namespace {

using namespace std::chrono_literals;

// Counts calls, remembers the generation read on the latest one, and lets
// the test wait for either.
class CallCounter {
 public:
  Callback callback() {
    return [this](const std::string& name) {
      const uint64_t generation = Generation(name);
      std::lock_guard lock(mu_);
      ++calls_;
      latest_ = generation;
      cv_.notify_all();
    };
  }
  bool waitFor(int calls, std::chrono::milliseconds timeout = 10s) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, timeout, [&] { return calls_ >= calls; });
  }
  bool waitForGeneration(uint64_t generation) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, 10s, [&] { return latest_ == generation; });
  }
  int calls() {
    std::lock_guard lock(mu_);
    return calls_;
  }
  uint64_t latest() {
    std::lock_guard lock(mu_);
    return latest_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int calls_ = 0;
  uint64_t latest_ = 0;
};

// A name no earlier test of this process has posted, so generations start
// at 0 even when tests repeat in one process.
std::string FreshName(const std::string& base) {
  static std::atomic<int> next{0};
  return base + "." + std::to_string(next.fetch_add(1));
}

TEST(NotifyTest, PostsTravelBetweenProcessesBothWays) {
  // Names with separators, blanks and non-ASCII bytes must work across
  // processes, not only within one.
  const std::string ping = FreshName("com.orvex.test/ping one\xc3\xbc"),
                    pong = FreshName("com.orvex.test.pong");
  auto queue = Queue::Create("test.notify");
  CallCounter pongs;
  auto observation = AddObserver(pong, queue, pongs.callback());
  auto helper = ChildProcess::Spawn(test::HelperPath("notify_helper"), {"echo", ping, pong, "3"});
  ASSERT_TRUE(helper);
  ASSERT_TRUE(pongs.waitFor(1)) << "the helper's ready post never arrived";
  for (int i = 1; i <= 3; ++i) {
    ASSERT_TRUE(Post(ping));
    ASSERT_TRUE(pongs.waitFor(1 + i)) << "no echo for post " << i;
  }
  EXPECT_EQ(helper->wait(10s), 0);
  EXPECT_EQ(Generation(ping), 3u);
  RemoveObserver(observation);
}

TEST(NotifyTest, ConcurrentPostsOfThreadsAndProcessesEachCountOnce) {
  const std::string name = FreshName("com.orvex.test.contended");
  constexpr int kThreads = 4, kPostsPerThread = 3000;
  constexpr uint64_t kHelperPosts = 3000;
  CallCounter first, second;
  auto a = AddObserver(name, Queue::Create("test.first"), first.callback());
  auto b = AddObserver(name, Queue::Create("test.second"), second.callback());

  auto helper = ChildProcess::Spawn(test::HelperPath("notify_helper"),
                                    {"post", name, std::to_string(kHelperPosts)});
  ASSERT_TRUE(helper);
  std::atomic<int> failed{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < kPostsPerThread; ++i) failed += !Post(name);
    });
  }
  for (std::thread& poster : posters) poster.join();
  ASSERT_EQ(helper->wait(30s), 0);
  EXPECT_EQ(failed.load(), 0);

  const uint64_t expected = kThreads * kPostsPerThread + kHelperPosts;
  EXPECT_EQ(Generation(name), expected);
  // A counter that stepped back would let a later post repeat a generation
  // an observer had already seen, and that observer would miss it.
  EXPECT_TRUE(first.waitForGeneration(expected)) << "first observer stopped at " << first.latest();
  EXPECT_TRUE(second.waitForGeneration(expected)) << "second observer stopped at " << second.latest();
  RemoveObserver(a);
  RemoveObserver(b);
}

TEST(NotifyTest, TokenReportsEachChangeOnce) {
  const std::string name = FreshName("com.orvex.test.token");
  EXPECT_EQ(Generation(name), 0u);
  const int32_t token = RegisterCheck(name);
  const int32_t other = RegisterCheck(name);
  ASSERT_GT(token, 0);
  EXPECT_NE(token, other);
  EXPECT_EQ(Check(token), true) << "the first check consumes the initial state";
  EXPECT_EQ(Check(token), false);
  Post(name);
  Post(name);
  EXPECT_EQ(Check(token), true);
  EXPECT_EQ(Check(token), false);
  // A post from another process counts the same.
  auto helper = ChildProcess::Spawn(test::HelperPath("notify_helper"), {"post", name, "1"});
  ASSERT_TRUE(helper);
  ASSERT_EQ(helper->wait(10s), 0);
  EXPECT_EQ(Check(token), true);
  EXPECT_EQ(Check(token), false);
  EXPECT_EQ(Generation(name), 3u);
  // Tokens are independent of each other.
  EXPECT_EQ(Check(other), true);
  EXPECT_TRUE(Cancel(token));
  EXPECT_FALSE(Cancel(token));
  EXPECT_EQ(Check(token), std::nullopt);
  EXPECT_EQ(Check(other), false);
}

TEST(NotifyTest, RemovedObserverIsNeverCalledAgainEvenWhenAlreadyQueued) {
  const std::string name = FreshName("com.orvex.test.removed");
  auto blocked = Queue::Create("test.blocked");
  auto free = Queue::Create("test.free");
  static const int kOwner = 0;
  CallCounter removed, byOwner, witness;
  // Registered first, so its call is queued before the witness's.
  auto observation = AddObserver(name, blocked, removed.callback());
  AddObserver(name, blocked, byOwner.callback(), &kOwner);
  auto witnessing = AddObserver(name, free, witness.callback());

  std::promise<void> release;
  blocked->async([gate = release.get_future().share()] { gate.wait(); });
  Post(name);
  ASSERT_TRUE(witness.waitFor(1));
  RemoveObserver(observation);
  RemoveEveryObserver(&kOwner);
  release.set_value();
  Post(name);
  ASSERT_TRUE(witness.waitFor(2));
  blocked->sync([] {});
  EXPECT_EQ(removed.calls(), 0);
  EXPECT_EQ(byOwner.calls(), 0);
  RemoveObserver(witnessing);
  free->sync([] {});  // no call is still running on `witness`
}

TEST(NotifyTest, FileNamesAreSafeAndDistinct) {
  EXPECT_EQ(FileNameForName("com.orvex.skylumeui.prefschanged"),
            "com.orvex.skylumeui.prefschanged");
  EXPECT_EQ(FileNameForName(".."), "%2E.");
  EXPECT_EQ(FileNameForName("a/b c%"), "a%2Fb%20c%25");
  EXPECT_EQ(FileNameForName(""), "%");
  const std::string longA(300, 'a'), longB = std::string(299, 'a') + "b";
  EXPECT_LE(FileNameForName(longA).size(), 200u);
  EXPECT_NE(FileNameForName(longA), FileNameForName(longB));
  EXPECT_EQ(FileNameForName(std::string(200, 'x')), std::string(200, 'x'));
}

}  // namespace
}  // namespace kx::notify
