#include "kx/queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/dispatch/asio.h"
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

#include "kx/assert.h"
#include "kx/format.h"
#include "kx/log.h"
#include "platform/dispatch/main_queue_internal.h"
#include "platform/dispatch/thread_pool.h"

// Execution model.
//
// A queue with a target is a view onto the end of its target chain, its
// "root": its items go straight into the root's list, tagged with the queue
// they came from. Items of one queue therefore keep their order, and they
// are serialised with everything else that runs on the root, which is what
// targeting promises. Only roots own an item list and an owner.
//
// A root is "owned" while exactly one thread runs its items: a drain job on
// the pool or a synchronous caller. Ownership passes by these rules only:
// - A drain job that finds the root owned returns at once; the owner
//   reschedules when it lets go. Drain jobs therefore never wait.
// - `sync` pushes a waiter mark. If the root is free, the caller takes it
//   and runs the items ahead of its mark itself, so it never waits for a
//   pool thread to become free (a pool of two threads whose threads are
//   all inside `sync` still makes progress). If the root is owned, the
//   caller waits; the owner hands ownership over when it reaches the mark.
// - Letting go with items left either hands over to a waiter at the front
//   or schedules a drain job.
// Hence a thread only ever waits for an owner that is running work; only a
// cycle of nested `sync` calls (a programming error) can deadlock.
//
// The main queue is a root that no pool thread drains: the application runs
// its items (see main_loop.h), so `sync` onto it hands the work over and
// waits instead of taking ownership.
//
// Quality of service is recorded but does not change scheduling: the pool
// threads serve every class, and Linux does not let an unprivileged thread
// lower its nice value again once raised, so per-item priorities would only
// ever ratchet down.

namespace kx {
namespace {

// Items a drain job runs before yielding the pool thread to other queues.
constexpr size_t kDrainBudget = 64;
// Items moved out of the list under one lock acquisition.
constexpr size_t kBatch = 16;

}  // namespace

class Queue::Impl {
 public:
  struct Waiter {
    std::condition_variable cv;
    bool granted = false;  // guarded by the root's mutex
  };
  struct Item {
    Work work;
    Impl* origin = nullptr;
    std::shared_ptr<Queue> keepOrigin;  // set when origin is not the root
    Waiter* waiter = nullptr;           // a sync mark when set
  };
  // One entry per item running on this thread, innermost last.
  struct Frame {
    explicit Frame(const Impl* o) : origin(o), prev(tTop) { tTop = this; }
    ~Frame() { tTop = prev; }
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;
    const Impl* origin;
    Frame* prev;
  };
  static thread_local Frame* tTop;

  Impl(std::string label, QoS qos, std::shared_ptr<Queue> target, bool isMain);
  ~Impl();

  static Impl& Of(const Queue& q) { return *q.impl_; }
  static void RunItem(Item& item);
  bool onThisThread() const;

  void enqueue(Item item);
  void drainFromPool();
  void acquireForSync();
  void release();
  void syncByHandOver(const Work& work);
  size_t drainMain(const std::atomic<bool>& stop);
  void waitMain(std::chrono::steady_clock::time_point deadline, const std::atomic<bool>& stop);

  const std::string label_;
  const QoS qos_;
  const std::shared_ptr<Queue> target_;
  Impl* const targetImpl_;
  Impl* const root_;
  const bool main_;
  Queue* self_ = nullptr;

  // Root state.
  std::mutex mu_;
  std::deque<Item> items_;
  bool owned_ = false;
  bool drainScheduled_ = false;
  // Main queue only.
  int eventFd_ = -1;
  bool signalled_ = false;
  std::condition_variable mainCv_;

  mutable std::mutex specificMu_;
  std::vector<std::pair<const void*, std::shared_ptr<void>>> specifics_;

 private:
  enum class Outcome { Idle, Yielded, HandedOver, ReachedMark };
  Outcome runOwned(size_t budget, const Waiter* mark);
  void handOverLocked();
  void scheduleDrain();
  void setSignalLocked(bool pending);
};

thread_local Queue::Impl::Frame* Queue::Impl::tTop = nullptr;

Queue::Impl::Impl(std::string label, QoS qos, std::shared_ptr<Queue> target, bool isMain)
    : label_(std::move(label)),
      qos_(qos),
      target_(std::move(target)),
      targetImpl_(target_ ? target_->impl_.get() : nullptr),
      root_(targetImpl_ ? targetImpl_->root_ : this),
      main_(isMain) {
  if (main_) {
    eventFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    KX_ASSERT_FATAL(eventFd_ >= 0, "cannot create the main queue's eventfd");
  }
}

Queue::Impl::~Impl() {
  if (eventFd_ >= 0) close(eventFd_);
}

namespace {

// A queued job has no caller to hand an exception to: it is a programming
// error. The line also goes straight to stderr, since the log may be off.
[[noreturn]] void StopForEscapedException(const std::string& label, const char* what) {
  const std::string line = Format("Uncaught exception in work on queue %s: %s", label, what);
  KXLOG(2, "%s", line);
  const std::string console = line + "\n";
  [[maybe_unused]] ssize_t ignored = write(STDERR_FILENO, console.data(), console.size());
  std::terminate();
}

}  // namespace

void Queue::Impl::RunItem(Item& item) {
  Frame frame(item.origin);
  try {
    item.work();
    // Captures die while the queue still counts as current: a destructor
    // that asks "am I on this queue?" (to avoid a sync onto it) must hear
    // yes, or it would wait on the thread that owns the queue: itself.
    item.work = nullptr;
  } catch (const std::exception& e) {
    StopForEscapedException(item.origin->label_, e.what());
  } catch (...) {
    StopForEscapedException(item.origin->label_, "(not a std::exception)");
  }
}

bool Queue::Impl::onThisThread() const {
  for (const Frame* f = tTop; f; f = f->prev)
    for (const Impl* q = f->origin; q; q = q->targetImpl_)
      if (q == this) return true;
  return false;
}

void Queue::Impl::scheduleDrain() {
  ThreadPool::Shared().post([self = self_->shared_from_this()] { self->impl_->drainFromPool(); });
}

void Queue::Impl::setSignalLocked(bool pending) {
  if (pending == signalled_) return;
  signalled_ = pending;
  uint64_t value = 1;
  // The eventfd counter is only ever 0 or 1 here, so neither call can fail
  // for want of room or data.
  ssize_t n = pending ? write(eventFd_, &value, sizeof value) : read(eventFd_, &value, sizeof value);
  (void)n;
}

void Queue::Impl::enqueue(Item item) {
  if (main_) {
    std::lock_guard lock(mu_);
    items_.push_back(std::move(item));
    setSignalLocked(true);
    mainCv_.notify_all();
    return;
  }
  bool schedule = false;
  {
    std::lock_guard lock(mu_);
    items_.push_back(std::move(item));
    if (!owned_ && !drainScheduled_) schedule = drainScheduled_ = true;
  }
  if (schedule) scheduleDrain();
}

void Queue::Impl::handOverLocked() {
  Waiter* w = items_.front().waiter;
  items_.pop_front();
  w->granted = true;
  w->cv.notify_one();
}

Queue::Impl::Outcome Queue::Impl::runOwned(size_t budget, const Waiter* mark) {
  Item batch[kBatch];
  std::unique_lock lock(mu_);
  for (;;) {
    if (items_.empty()) {
      owned_ = false;
      return Outcome::Idle;
    }
    if (items_.front().waiter) {
      if (items_.front().waiter == mark) {
        items_.pop_front();
        return Outcome::ReachedMark;
      }
      handOverLocked();
      return Outcome::HandedOver;
    }
    if (budget == 0) {
      owned_ = false;
      drainScheduled_ = true;
      lock.unlock();
      scheduleDrain();
      return Outcome::Yielded;
    }
    size_t n = 0;
    while (n < kBatch && n < budget && !items_.empty() && !items_.front().waiter) {
      batch[n++] = std::move(items_.front());
      items_.pop_front();
    }
    budget -= n;
    lock.unlock();
    for (size_t i = 0; i < n; ++i) {
      RunItem(batch[i]);
      batch[i] = Item();  // drop captures before the next item runs
    }
    lock.lock();
  }
}

void Queue::Impl::drainFromPool() {
  {
    std::lock_guard lock(mu_);
    drainScheduled_ = false;
    if (owned_) return;
    owned_ = true;
  }
  runOwned(kDrainBudget, nullptr);
}

void Queue::Impl::acquireForSync() {
  std::unique_lock lock(mu_);
  if (!owned_ && items_.empty()) {
    owned_ = true;
    return;
  }
  Waiter waiter;
  items_.push_back(Item{{}, nullptr, nullptr, &waiter});
  if (!owned_) {
    owned_ = true;
    lock.unlock();
    if (runOwned(std::numeric_limits<size_t>::max(), &waiter) == Outcome::ReachedMark) return;
    lock.lock();
  }
  waiter.cv.wait(lock, [&] { return waiter.granted; });
}

void Queue::Impl::release() {
  std::unique_lock lock(mu_);
  if (items_.empty()) {
    owned_ = false;
    return;
  }
  if (items_.front().waiter) {
    handOverLocked();
    return;
  }
  owned_ = false;
  if (drainScheduled_) return;
  drainScheduled_ = true;
  lock.unlock();
  scheduleDrain();
}

void Queue::Impl::syncByHandOver(const Work& work) {
  struct Call {
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    std::exception_ptr error;
  } call;
  Item item;
  item.origin = this;
  if (this != root_) item.keepOrigin = self_->shared_from_this();
  item.work = [&call, &work] {
    std::exception_ptr error;
    try {
      work();
    } catch (...) {
      error = std::current_exception();
    }
    // Notify under the lock: `call` lives on the waiting thread's stack.
    std::lock_guard lock(call.mu);
    call.error = std::move(error);
    call.done = true;
    call.cv.notify_one();
  };
  root_->enqueue(std::move(item));
  std::unique_lock lock(call.mu);
  call.cv.wait(lock, [&] { return call.done; });
  if (call.error) std::rethrow_exception(call.error);
}

size_t Queue::Impl::drainMain(const std::atomic<bool>& stop) {
  KX_ASSERT(!onThisThread(), "main queue drained from work running on it");
  std::unique_lock lock(mu_);
  if (owned_) return 0;
  owned_ = true;
  size_t pending = items_.size();
  size_t ran = 0;
  while (ran < pending && !stop.load(std::memory_order_acquire)) {
    Item item = std::move(items_.front());
    items_.pop_front();
    setSignalLocked(!items_.empty());
    lock.unlock();
    RunItem(item);
    item = Item();
    ++ran;
    lock.lock();
  }
  owned_ = false;
  return ran;
}

void Queue::Impl::waitMain(std::chrono::steady_clock::time_point deadline,
                           const std::atomic<bool>& stop) {
  std::unique_lock lock(mu_);
  auto ready = [&] { return !items_.empty() || stop.load(std::memory_order_acquire); };
  // time_point::max() means no deadline; passing it on would overflow.
  if (deadline == std::chrono::steady_clock::time_point::max())
    mainCv_.wait(lock, ready);
  else
    mainCv_.wait_until(lock, deadline, ready);
}

// Queue

std::shared_ptr<Queue> Queue::Create(std::string label, QoS qos, std::shared_ptr<Queue> target) {
  std::shared_ptr<Queue> q(
      new Queue(std::make_unique<Impl>(std::move(label), qos, std::move(target), false)));
  q->impl_->self_ = q.get();
  return q;
}

const std::shared_ptr<Queue>& Queue::Main() {
  // Never destroyed: pool threads and message readers that outlive main may
  // still submit work to it while static destructors run.
  static const std::shared_ptr<Queue>& main = *new std::shared_ptr<Queue>([] {
    std::shared_ptr<Queue> q(new Queue(
        std::make_unique<Impl>("com.orvex.main-thread", QoS::UserInteractive, nullptr, true)));
    q->impl_->self_ = q.get();
    return q;
  }());
  return main;
}

Queue* Queue::Current() { return Impl::tTop ? Impl::tTop->origin->self_ : nullptr; }

Queue::Queue(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Queue::~Queue() = default;

const std::string& Queue::label() const { return impl_->label_; }
Queue::QoS Queue::qos() const { return impl_->qos_; }

void Queue::async(Work work) {
  Impl::Item item;
  item.work = std::move(work);
  item.origin = impl_.get();
  if (impl_->root_ != impl_.get()) item.keepOrigin = shared_from_this();
  impl_->root_->enqueue(std::move(item));
}

void Queue::sync(const Work& work) {
  Impl* root = impl_->root_;
  if (root->onThisThread()) {
    // Waiting for ourselves would never end. Where raising assertions only
    // log, the work runs in place: this thread already owns the queue.
    KX_ASSERT(false, "sync onto queue " + impl_->label_ + " from work already running on it");
    Impl::Frame frame(impl_.get());
    work();
    return;
  }
  if (root->main_) {
    impl_->syncByHandOver(work);
    return;
  }
  root->acquireForSync();
  struct Releaser {
    Impl* root;
    ~Releaser() { root->release(); }
  } releaser{root};
  Impl::Frame frame(impl_.get());
  work();
}

namespace {

class SteadyTimer final : public Queue::Timer {
 public:
  explicit SteadyTimer(asio::io_context& io) : timer(io) {}
  void cancel() override {
    cancelled.store(true, std::memory_order_release);
    // Frees the pending wait (and the work it holds) early. Serialised
    // because an asio timer is not safe for concurrent calls.
    std::lock_guard lock(mu);
    timer.cancel();
  }
  asio::steady_timer timer;
  std::atomic<bool> cancelled{false};
  std::mutex mu;
};

}  // namespace

std::shared_ptr<Queue::Timer> Queue::asyncAfter(std::chrono::nanoseconds delay, Work work) {
  auto state = std::make_shared<SteadyTimer>(ThreadPool::Shared().context());
  std::lock_guard lock(state->mu);
  state->timer.expires_after(delay);
  state->timer.async_wait([state, queue = shared_from_this(),
                           work = std::move(work)](const std::error_code& ec) mutable {
    if (ec || state->cancelled.load(std::memory_order_acquire)) return;
    queue->async([state = std::move(state), work = std::move(work)] {
      // A cancel that lands before this point still wins.
      if (!state->cancelled.load(std::memory_order_acquire)) work();
    });
  });
  return state;
}

bool Queue::isCurrent() const { return impl_->onThisThread(); }

void Queue::setSpecific(const void* key, std::shared_ptr<void> value) {
  std::lock_guard lock(impl_->specificMu_);
  auto& specifics = impl_->specifics_;
  for (auto it = specifics.begin(); it != specifics.end(); ++it) {
    if (it->first != key) continue;
    if (value)
      it->second = std::move(value);
    else
      specifics.erase(it);
    return;
  }
  if (value) specifics.emplace_back(key, std::move(value));
}

std::shared_ptr<void> Queue::getSpecific(const void* key) const {
  std::lock_guard lock(impl_->specificMu_);
  for (const auto& [k, v] : impl_->specifics_)
    if (k == key) return v;
  return nullptr;
}

std::shared_ptr<void> Queue::GetSpecific(const void* key) {
  if (!Impl::tTop) return nullptr;
  for (const Impl* q = Impl::tTop->origin; q; q = q->targetImpl_)
    if (auto v = q->self_->getSpecific(key)) return v;
  return nullptr;
}

void AssertOnQueue(const Queue& queue, const char* file, int line) {
  // Fast path: the innermost running item belongs to `queue`.
  if (Queue::Current() == &queue) [[likely]]
    return;
  if (!queue.isCurrent())
    AssertionFailed(AssertionStrength::Raising, "must run on queue " + queue.label(), file, line);
}

// The main queue's side of main_loop.

namespace main_queue {

Queue::Impl& MainImpl() { return Queue::Impl::Of(*Queue::Main()); }

size_t Drain(const std::atomic<bool>& stop) { return MainImpl().drainMain(stop); }

void Wait(std::chrono::steady_clock::time_point deadline, const std::atomic<bool>& stop) {
  MainImpl().waitMain(deadline, stop);
}

void Wake() {
  Queue::Impl& main = MainImpl();
  std::lock_guard lock(main.mu_);
  main.mainCv_.notify_all();
}

int Fd() { return MainImpl().eventFd_; }

}  // namespace main_queue

}  // namespace kx
