// Labelled serial queues over one process-wide thread pool, and the main
// queue that the application drains on its main thread.
//
// Invariants:
// - Work submitted to one queue runs one item at a time, in submission order
//   (delayed work in order of its due time).
// - `sync` runs the work on the caller's thread once the queue is free; it
//   never parks a pool thread waiting for another pool thread, so a pool of
//   two threads cannot deadlock on nested synchronous submissions.
// - A queue may target another queue: its work then runs serialised with the
//   target's work, and `isCurrent()` is true for both while it runs.
// - An exception escaping a queued job is a programming error: it is logged
//   and the process stops. An exception escaping `sync` work reaches the
//   caller of `sync`, as from a plain function call.
// - Every queue runs on the one process-wide pool (platform/thread_pool.h).
//   Quality of service is recorded but does not change scheduling: pool
//   threads serve every class, and Linux lets an unprivileged thread raise
//   its nice value but never lower it again.
#pragma once

#include "kx/export.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace kx {

class KX_EXPORT Queue : public std::enable_shared_from_this<Queue> {
 public:
  using Work = std::function<void()>;

  // Quality of service maps to thread priorities where Linux allows.
  enum class QoS { Background, Utility, Default, UserInitiated, UserInteractive };

  static std::shared_ptr<Queue> Create(std::string label, QoS qos = QoS::Default,
                                       std::shared_ptr<Queue> target = nullptr);
  // The main queue: runs only when the application drains it (see main_loop.h).
  static const std::shared_ptr<Queue>& Main();
  // The queue whose work is running on this thread, or null.
  static Queue* Current();

  virtual ~Queue();

  const std::string& label() const;
  QoS qos() const;

  void async(Work work);
  // Returns once `work` has run. When the queue is idle with work still
  // queued, the caller runs that earlier work itself before `work`, rather
  // than wait for a pool thread. Work for the main queue (or a queue that
  // targets it) instead runs on the thread that drains the main queue, and
  // the caller waits for it. Calling `sync` from work already running on
  // the queue (or on a queue it targets) is a programming error (raising
  // assertion); where that only logs, the work runs in place.
  void sync(const Work& work);
  // Runs `work` after `delay`. The returned handle cancels it (no effect once
  // the work has started).
  class Timer;
  std::shared_ptr<Timer> asyncAfter(std::chrono::nanoseconds delay, Work work);

  // True while this queue's work (or work of a queue targeting it) runs on
  // the calling thread.
  bool isCurrent() const;

  // Queue-specific values, looked up by key on this queue or, through
  // `GetSpecific`, on the current queue and its targets.
  void setSpecific(const void* key, std::shared_ptr<void> value);
  std::shared_ptr<void> getSpecific(const void* key) const;
  static std::shared_ptr<void> GetSpecific(const void* key);

  class Impl;

 protected:
  explicit Queue(std::unique_ptr<Impl> impl);

 private:
  std::unique_ptr<Impl> impl_;
};

class KX_EXPORT Queue::Timer {
 public:
  virtual ~Timer() = default;
  virtual void cancel() = 0;
};

// Asserts (raising strength) that the caller runs on `queue`. In release
// builds the check costs one thread-local load.
KX_EXPORT void AssertOnQueue(const Queue& queue, const char* file, int line);

}  // namespace kx

#define KX_ASSERT_ON_QUEUE(queue) ::kx::AssertOnQueue(*(queue), __FILE__, __LINE__)
