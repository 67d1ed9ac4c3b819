#include "kx/main_loop.h"

#include <atomic>

#include "platform/dispatch/main_queue_internal.h"

// A stop request is remembered until a `run`/`runFor` consumes it, so a stop
// posted from another thread just before the application enters `run` is
// not lost.

namespace kx::main_loop {
namespace {

std::atomic<bool> gStopRequested{false};

void RunUntil(std::chrono::steady_clock::time_point deadline) {
  while (!gStopRequested.load(std::memory_order_acquire)) {
    main_queue::Drain(gStopRequested);
    if (gStopRequested.load(std::memory_order_acquire)) break;
    if (std::chrono::steady_clock::now() >= deadline) break;
    main_queue::Wait(deadline, gStopRequested);
  }
  gStopRequested.store(false, std::memory_order_release);
}

}  // namespace

void run() { RunUntil(std::chrono::steady_clock::time_point::max()); }

void runFor(std::chrono::nanoseconds timeout) {
  RunUntil(std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(timeout));
}

size_t drain() {
  static const std::atomic<bool> kNever{false};
  return main_queue::Drain(kNever);
}

void stop() {
  gStopRequested.store(true, std::memory_order_release);
  main_queue::Wake();
}

int fd() { return main_queue::Fd(); }

}  // namespace kx::main_loop
