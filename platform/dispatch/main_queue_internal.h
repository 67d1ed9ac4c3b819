// The hooks between the main queue (queue.cpp) and the application's side of
// it (main_loop.cpp). Not part of the public interface.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>

namespace kx::main_queue {

// Runs the items pending at entry (items queued meanwhile wait for the next
// call); returns early after an item once `stop` is set. Returns the number
// of items run; 0 when another thread is draining.
size_t Drain(const std::atomic<bool>& stop);
// Blocks until main-queue work is pending, `stop` is set (followed by
// `Wake`), or `deadline` passes.
void Wait(std::chrono::steady_clock::time_point deadline, const std::atomic<bool>& stop);
// Wakes every `Wait`; call after setting a stop flag.
void Wake();
// The eventfd that is readable exactly while items are pending.
int Fd();

}  // namespace kx::main_queue
