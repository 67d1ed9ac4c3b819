// The one process-wide thread pool that runs every serial queue, timer and
// readiness callback of the library.
//
// Invariants:
// - Created on first use and never destroyed: its threads may still be
//   running when static destructors run, so nothing they touch is torn down.
// - Size is $KX_THREAD_POOL_SIZE when set to a positive number (read once,
//   at creation), otherwise max(2, hardware threads).
// - Work posted here must not block waiting for other pool work; serial
//   queues guarantee that for their own synchronous submissions.
#pragma once

#include <cstddef>
#include <functional>

namespace asio {
class io_context;
}

namespace kx {

class ThreadPool {
 public:
  static ThreadPool& Shared();

  // Runs `work` on some pool thread, soon.
  void post(std::function<void()> work);
  // The context that pool threads run; timers and descriptors registered on
  // it complete on pool threads.
  asio::io_context& context();
  size_t size() const { return size_; }
  // True on the pool's own threads.
  static bool IsPoolThread();

  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

 private:
  explicit ThreadPool(size_t size);
  struct State;
  State* state_;  // leaked with the pool
  size_t size_;
};

}  // namespace kx
