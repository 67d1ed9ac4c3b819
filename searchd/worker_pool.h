// The query workers: a fixed set of threads, each with its own read
// connection to the index, taking jobs in submission order. Queries never
// run on a connection's event queue, so a slow query delays neither the
// "CloseQuery" that cancels it nor other peers' messages.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "searchd/index.h"

namespace kx::searchd {

class WorkerPool {
 public:
  using Job = std::function<void(Index& index)>;

  // Opens one index connection per thread. Throws SqliteError.
  WorkerPool(const std::string& indexPath, size_t threads);
  // Finishes the queued jobs, then joins.
  ~WorkerPool();

  // False once `finish` was called (the job is dropped).
  bool submit(Job job);
  // Runs every job submitted so far to its end and stops the threads.
  void finish();

 private:
  void run(Index& index);

  std::mutex mu_;
  std::condition_variable wake_;
  std::deque<Job> jobs_;   // guarded by mu_
  bool finishing_ = false; // guarded by mu_
  std::vector<std::unique_ptr<Index>> indexes_;
  std::vector<std::thread> threads_;
};

}  // namespace kx::searchd
