// Once-only initialisation that tolerates re-entry from the thread running it.
#pragma once

#include <atomic>
#include <thread>

namespace kx {

// Once-only initialisation that tolerates re-entry. Other threads wait until
// the initialisation has finished; the thread running it sees it unfinished
// and carries on, so a line logged from inside the initialisation is handled
// as if the initialisation had not happened yet instead of deadlocking.
class ReentrantOnce {
 public:
  // True when the caller is to run the initialisation and then call Finish().
  bool TryBegin() {
    int state = state_.load(std::memory_order_acquire);
    for (;;) {
      if (state == kDone) return false;
      if (state == kUnstarted) {
        if (state_.compare_exchange_weak(state, kRunning, std::memory_order_acq_rel,
                                         std::memory_order_acquire)) {
          runner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
          return true;
        }
        continue;
      }
      // A thread compares equal only to its own id, so a stale runner_ can
      // only make another thread wait, never skip.
      if (runner_.load(std::memory_order_relaxed) == std::this_thread::get_id()) return false;
      state_.wait(kRunning, std::memory_order_acquire);
      state = state_.load(std::memory_order_acquire);
    }
  }
  void Finish() {
    state_.store(kDone, std::memory_order_release);
    state_.notify_all();
  }
  bool done() const { return state_.load(std::memory_order_acquire) == kDone; }

 private:
  enum : int { kUnstarted, kRunning, kDone };
  std::atomic<int> state_{kUnstarted};
  std::atomic<std::thread::id> runner_{};
};

}  // namespace kx
