// Holds a process's replaceable service (restrictions, statistics,
// activities): the default one, made on first use, unless the application
// installed its own. Safe from any thread; callers keep the returned
// reference, so replacing a service never pulls it from under a user.
#pragma once

#include <memory>
#include <mutex>

namespace kx {

template <class Service>
class ServiceSlot {
 public:
  using Factory = std::shared_ptr<Service> (*)();
  explicit ServiceSlot(Factory makeDefault) : makeDefault_(makeDefault) {}

  std::shared_ptr<Service> get() {
    std::lock_guard lock(mu_);
    if (!service_) service_ = makeDefault_();
    return service_;
  }
  // Null brings back a default service, made on next use.
  void set(std::shared_ptr<Service> service) {
    std::lock_guard lock(mu_);
    service_ = std::move(service);
  }

 private:
  const Factory makeDefault_;
  std::mutex mu_;
  std::shared_ptr<Service> service_;  // guarded by mu_
};

}  // namespace kx
