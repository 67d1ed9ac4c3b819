#include "platform/notify/notification_center.h"

#include <atomic>

#include "kx/queue.h"

namespace kx {

class NotificationCenter::Observation {
 public:
  Observation(std::optional<std::string> n, const void* o, std::shared_ptr<Queue> q, Callback cb,
              const void* w)
      : name(std::move(n)), object(o), queue(std::move(q)), callback(std::move(cb)), owner(w) {}

  bool matches(const Notification& note) const {
    return (!name || *name == note.name) && (!object || object == note.object.get());
  }
  // Checked right before each call, on the thread that makes it.
  void deliver(const Notification& note) const {
    if (!cancelled.load(std::memory_order_acquire)) callback(note);
  }

  const std::optional<std::string> name;
  const void* const object;
  const std::shared_ptr<Queue> queue;
  const Callback callback;
  const void* const owner;
  std::atomic<bool> cancelled{false};
};

NotificationCenter& NotificationCenter::Default() {
  // Leaked: observers may post from pool threads while the process exits.
  static NotificationCenter* center = new NotificationCenter;
  return *center;
}

NotificationCenter::NotificationCenter() = default;
NotificationCenter::~NotificationCenter() = default;

std::shared_ptr<NotificationCenter::Observation> NotificationCenter::addObserver(
    std::optional<std::string> name, const void* object, std::shared_ptr<Queue> queue,
    Callback callback, const void* owner) {
  auto observation = std::make_shared<Observation>(std::move(name), object, std::move(queue),
                                                   std::move(callback), owner);
  std::lock_guard lock(mu_);
  observations_.push_back(observation);
  return observation;
}

void NotificationCenter::removeObserver(const std::shared_ptr<Observation>& observation) {
  if (!observation) return;
  observation->cancelled.store(true, std::memory_order_release);
  std::lock_guard lock(mu_);
  std::erase(observations_, observation);
}

void NotificationCenter::removeEveryObserver(const void* owner) {
  std::lock_guard lock(mu_);
  std::erase_if(observations_, [owner](const std::shared_ptr<Observation>& o) {
    if (o->owner != owner) return false;
    o->cancelled.store(true, std::memory_order_release);
    return true;
  });
}

void NotificationCenter::post(std::string name, std::shared_ptr<void> object,
                              std::optional<Dictionary> userInfo) {
  auto note = std::make_shared<const Notification>(
      Notification{std::move(name), std::move(object), std::move(userInfo)});
  // Callbacks run outside the lock: they may observe, remove or post.
  std::vector<std::shared_ptr<Observation>> matching;
  {
    std::lock_guard lock(mu_);
    for (const auto& o : observations_)
      if (o->matches(*note)) matching.push_back(o);
  }
  for (const auto& o : matching) {
    if (o->queue)
      o->queue->async([o, note] { o->deliver(*note); });
    else
      o->deliver(*note);
  }
}

}  // namespace kx
