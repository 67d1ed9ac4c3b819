// The in-process application notification centre: a poster names a
// notification and may attach an object and a user-info dictionary;
// observers registered for that name (and, optionally, that object) are
// called on their queue, or synchronously on the posting thread when they
// named no queue.
//
// Invariants:
// - Synchronous observers have all returned when `post` returns; queued ones
//   are called later, each on its own queue, in the order of the posts.
// - Once `removeObserver` returns, the observation's callback is never
//   started again, even when a call was already queued.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kx/value.h"

namespace kx {

class Queue;

struct Notification {
  std::string name;
  std::shared_ptr<void> object;         // the poster's object; may be null
  std::optional<Dictionary> userInfo;   // absent unless the poster gave one
};

class NotificationCenter {
 public:
  using Callback = std::function<void(const Notification&)>;
  class Observation;

  // The process's default centre.
  static NotificationCenter& Default();

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Observes notifications named `name` (every name when absent) whose
  // object is `object` (any object when null). `queue` null means
  // synchronously on the posting thread. `owner` (may be null) groups
  // observations for `removeEveryObserver`.
  std::shared_ptr<Observation> addObserver(std::optional<std::string> name, const void* object,
                                           std::shared_ptr<Queue> queue, Callback callback,
                                           const void* owner = nullptr);
  void removeObserver(const std::shared_ptr<Observation>& observation);
  void removeEveryObserver(const void* owner);

  void post(std::string name, std::shared_ptr<void> object = nullptr,
            std::optional<Dictionary> userInfo = std::nullopt);

 private:
  std::mutex mu_;
  std::vector<std::shared_ptr<Observation>> observations_;
};

}  // namespace kx
