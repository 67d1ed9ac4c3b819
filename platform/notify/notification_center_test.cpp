#include "platform/notify/notification_center.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

#include "kx/queue.h"

namespace kx {
namespace {

TEST(NotificationCenterTest, DeliversByNameAndObjectOnTheNamedQueue) {
  NotificationCenter center;
  auto queue = Queue::Create("test.observer");
  auto sender = std::make_shared<int>(1), stranger = std::make_shared<int>(2);
  std::vector<std::string> seen;  // synchronous observer: test thread only
  std::vector<std::string> queued;  // touched only on `queue`
  center.addObserver("changed", nullptr, nullptr, [&](const Notification& n) {
    EXPECT_EQ(n.userInfo.has_value(), n.object == sender);
    seen.push_back(n.name);
  });
  center.addObserver(std::nullopt, sender.get(), queue, [&](const Notification& n) {
    EXPECT_TRUE(queue->isCurrent());
    EXPECT_EQ(n.object, sender);
    queued.push_back(n.name + (n.userInfo ? ":" + n.userInfo->at("k").description() : ""));
  });

  center.post("changed", sender, MakeDictionary({{"k", 7}}));
  center.post("changed", stranger);
  center.post("other", sender);
  EXPECT_EQ(seen, (std::vector<std::string>{"changed", "changed"}));
  queue->sync([] {});
  EXPECT_EQ(queued, (std::vector<std::string>{"changed:7", "other"}));
}

TEST(NotificationCenterTest, RemovedObserverIsNeverCalledEvenWhenAlreadyQueued) {
  NotificationCenter center;
  auto queue = Queue::Create("test.blocked");
  static const int kOwner = 0;
  int calls = 0;  // touched only on `queue`
  auto observation =
      center.addObserver("n", nullptr, queue, [&](const Notification&) { ++calls; });
  center.addObserver("n", nullptr, queue, [&](const Notification&) { ++calls; }, &kOwner);
  std::promise<void> release;
  queue->async([gate = release.get_future().share()] { gate.wait(); });
  center.post("n");  // both calls now wait behind the gate
  center.removeObserver(observation);
  center.removeEveryObserver(&kOwner);
  release.set_value();
  center.post("n");
  queue->sync([] {});
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace kx
