// The application side of the main queue. Work submitted to
// kx::Queue::Main() runs only inside `run` or `drain`, on the thread that
// calls them; `fd` is an eventfd that is readable while work is pending, so
// GLib, Qt and epoll loops can integrate without an extra thread.
#pragma once

#include "kx/export.h"

#include <chrono>
#include <cstddef>

namespace kx::main_loop {

// Runs main-queue work until `stop` is called.
KX_EXPORT void run();
// Runs main-queue work until `stop` is called or `timeout` passes.
KX_EXPORT void runFor(std::chrono::nanoseconds timeout);
// Runs the work pending now (and any due delayed work); returns how many
// items ran. Work queued meanwhile waits for the next call, so `drain`
// always returns. Returns 0 when another thread is draining.
KX_EXPORT size_t drain();
// Makes `run` return after the current item. A stop requested while no
// `run` is in progress makes the next `run` (or `runFor`) return at once, so
// a stop posted from another thread just before `run` starts is not lost.
KX_EXPORT void stop();
// Readable while main-queue work is pending.
KX_EXPORT int fd();

}  // namespace kx::main_loop
