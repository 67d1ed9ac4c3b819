#include "searchd/worker_pool.h"

#include "kx/log.h"
#include "searchd/text.h"

namespace kx::searchd {

WorkerPool::WorkerPool(const std::string& indexPath, size_t threads) {
  WarmUpWordBreaking();
  for (size_t i = 0; i < threads; ++i) indexes_.push_back(std::make_unique<Index>(indexPath, /*readOnly=*/true));
  for (auto& index : indexes_) threads_.emplace_back([this, i = index.get()] { run(*i); });
}

WorkerPool::~WorkerPool() { finish(); }

bool WorkerPool::submit(Job job) {
  {
    std::lock_guard lock(mu_);
    if (finishing_) return false;
    jobs_.push_back(std::move(job));
  }
  wake_.notify_one();
  return true;
}

void WorkerPool::finish() {
  {
    std::lock_guard lock(mu_);
    finishing_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_)
    if (t.joinable()) t.join();
}

void WorkerPool::run(Index& index) {
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mu_);
      wake_.wait(lock, [this] { return finishing_ || !jobs_.empty(); });
      if (jobs_.empty()) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    try {
      job(index);
    } catch (const std::exception& e) {
      KXLOG(3, "kx-searchd: query failed: %s", std::string(e.what()));
    }
  }
}

}  // namespace kx::searchd
