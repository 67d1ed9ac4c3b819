#include "platform/dispatch/thread_pool.h"

#include <pthread.h>

#include <algorithm>
#include "platform/dispatch/asio.h"
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace kx {
namespace {

thread_local bool tIsPoolThread = false;

size_t SizeFromEnvironment() {
  if (const char* v = std::getenv("KX_THREAD_POOL_SIZE")) {
    char* end = nullptr;
    long n = std::strtol(v, &end, 10);
    if (end != v && *end == '\0' && n > 0 && n <= 1024) return static_cast<size_t>(n);
  }
  return std::max<size_t>(2, std::thread::hardware_concurrency());
}

}  // namespace

struct ThreadPool::State {
  asio::io_context io;
  // Keeps `run` from returning while the pool is idle.
  asio::executor_work_guard<asio::io_context::executor_type> guard{io.get_executor()};
  std::vector<std::thread> threads;
};

ThreadPool& ThreadPool::Shared() {
  // Leaked on purpose (see header).
  static ThreadPool* pool = new ThreadPool(SizeFromEnvironment());
  return *pool;
}

ThreadPool::ThreadPool(size_t size) : state_(new State), size_(size) {
  for (size_t i = 0; i < size; ++i) {
    state_->threads.emplace_back([io = &state_->io, i] {
      tIsPoolThread = true;
      const std::string name = "kx-pool-" + std::to_string(i);
      pthread_setname_np(pthread_self(), name.c_str());
      io->run();
    });
    state_->threads.back().detach();
  }
}

void ThreadPool::post(std::function<void()> work) { asio::post(state_->io, std::move(work)); }

asio::io_context& ThreadPool::context() { return state_->io; }

bool ThreadPool::IsPoolThread() { return tIsPoolThread; }

}  // namespace kx
