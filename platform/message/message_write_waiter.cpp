#include "platform/message/message_write_waiter.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "kx/assert.h"

namespace kx {

struct WritableWaiter::State {
  int epoll = -1;
  std::mutex mu;
  std::unordered_map<int, std::function<void()>> callbacks;  // guarded by mu

  void run() {
    pthread_setname_np(pthread_self(), "kx-msg-writable");
    epoll_event events[32];
    for (;;) {
      const int n = epoll_wait(epoll, events, 32, -1);
      for (int i = 0; i < n; ++i) {
        const int fd = events[i].data.fd;
        std::function<void()> ready;
        {
          std::lock_guard lock(mu);
          auto it = callbacks.find(fd);
          if (it == callbacks.end()) continue;
          ready = std::move(it->second);
          callbacks.erase(it);
          epoll_ctl(epoll, EPOLL_CTL_DEL, fd, nullptr);
        }
        ready();
      }
    }
  }
};

WritableWaiter& WritableWaiter::Shared() {
  // Leaked: its thread may run while static destructors do.
  static WritableWaiter* waiter = new WritableWaiter();
  return *waiter;
}

WritableWaiter::WritableWaiter() : state_(new State) {
  state_->epoll = epoll_create1(EPOLL_CLOEXEC);
  KX_ASSERT_FATAL(state_->epoll >= 0, "cannot create the message service's epoll descriptor");
  std::thread([state = state_] { state->run(); }).detach();
}

bool WritableWaiter::watch(int fd, std::function<void()> ready) {
  std::lock_guard lock(state_->mu);
  if (state_->callbacks.contains(fd)) return false;
  // Level-triggered: a descriptor that is writable already is reported at
  // once, so no wake-up between the failed send and this call is lost.
  epoll_event event{};
  event.events = EPOLLOUT;
  event.data.fd = fd;
  if (epoll_ctl(state_->epoll, EPOLL_CTL_ADD, fd, &event) != 0) return false;
  state_->callbacks.emplace(fd, std::move(ready));
  return true;
}

void WritableWaiter::cancel(int fd) {
  std::function<void()> dropped;  // destroyed outside the lock
  std::lock_guard lock(state_->mu);
  auto it = state_->callbacks.find(fd);
  if (it == state_->callbacks.end()) return;
  dropped = std::move(it->second);
  state_->callbacks.erase(it);
  epoll_ctl(state_->epoll, EPOLL_CTL_DEL, fd, nullptr);
}

}  // namespace kx
