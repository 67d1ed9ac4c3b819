// Waits for sockets to become writable, for the message service's senders
// whose datagrams did not fit. One process-wide thread, started on first use,
// waits with epoll; registrations never change the descriptor's flags (the
// socket's reader relies on blocking mode, which the file description shares
// with every duplicate).
//
// Invariants:
// - Each `watch` calls its callback at most once, on the waiter's thread,
//   once the descriptor is writable or has failed (error, hang-up).
// - The waiter's lock is never held while a callback runs, so callbacks may
//   take their owner's lock, and owners may call `watch` and `cancel` under
//   it.
// - A descriptor must stay open until its callback has run or `cancel` has
//   returned; a callback may still run after `cancel` if it had already been
//   picked up, so it must check its owner's state.
#pragma once

#include <functional>

namespace kx {

class WritableWaiter {
 public:
  static WritableWaiter& Shared();

  // False when the descriptor cannot be watched (already watched, or epoll
  // refused it); the callback is then dropped.
  bool watch(int fd, std::function<void()> ready);
  void cancel(int fd);

  struct State;

 private:
  WritableWaiter();
  State* state_;  // leaked with the waiter
};

}  // namespace kx
