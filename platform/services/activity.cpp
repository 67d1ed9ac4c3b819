#include "platform/services/activity.h"

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>

#include "kx/log.h"
#include "platform/message/service_slot.h"
#include "platform/services/statistics.h"

namespace kx {
namespace {

std::atomic<uint64_t> gNextActivity{1};
thread_local uint64_t tCurrentActivity = 0;

class LoggingActivities final : public Activities {
 public:
  uint64_t begin(std::string_view name, uint64_t parent) override {
    const uint64_t id = gNextActivity.fetch_add(1, std::memory_order_relaxed);
    KXLOG(7, "Activity %llu \"%s\" began (parent %llu)", id, name, parent);
    std::lock_guard lock(mu_);
    open_.emplace(id, Open{std::string(name), MonotonicNanoseconds()});
    return id;
  }

  void end(uint64_t activity) override {
    Open open;
    {
      std::lock_guard lock(mu_);
      auto it = open_.find(activity);
      if (it == open_.end()) {
        KXLOG(3, "Activity %llu ended but was not open", activity);
        return;
      }
      open = std::move(it->second);
      open_.erase(it);
    }
    KXLOG(7, "Activity %llu \"%s\" ended after %.3f ms", activity, open.name,
          static_cast<double>(MonotonicNanoseconds() - open.start) / 1e6);
  }

 private:
  struct Open {
    std::string name;
    uint64_t start = 0;
  };
  std::mutex mu_;
  std::unordered_map<uint64_t, Open> open_;
};

ServiceSlot<Activities>& Slot() {
  static auto* slot = new ServiceSlot<Activities>(
      [] { return std::shared_ptr<Activities>(std::make_shared<LoggingActivities>()); });
  return *slot;
}

}  // namespace

std::shared_ptr<Activities> Activities::Shared() { return Slot().get(); }

void Activities::SetShared(std::shared_ptr<Activities> activities) {
  Slot().set(std::move(activities));
}

ActivityScope::ActivityScope(std::string_view name)
    : service_(Activities::Shared()),
      id_(service_->begin(name, tCurrentActivity)),
      previous_(tCurrentActivity) {
  tCurrentActivity = id_;
}

ActivityScope::~ActivityScope() {
  tCurrentActivity = previous_;
  service_->end(id_);
}

uint64_t ActivityScope::Current() { return tCurrentActivity; }

}  // namespace kx
