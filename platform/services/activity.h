// Tracing activities: named spans of work, optionally nested in a parent.
//
// The default service logs each begin and end at debug level (7) with the
// activity's id, parent and duration; an application can replace it (e.g.
// with one that forwards to its tracer). Ids are process-wide, non-zero and
// never reused; 0 means "no activity".
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

namespace kx {

class Activities {
 public:
  // The process's service: the default one unless replaced.
  static std::shared_ptr<Activities> Shared();
  // Replaces the service; null restores the default.
  static void SetShared(std::shared_ptr<Activities> activities);

  virtual ~Activities() = default;
  // Returns the new activity's id.
  virtual uint64_t begin(std::string_view name, uint64_t parent) = 0;
  virtual void end(uint64_t activity) = 0;
};

// Runs an activity for the life of the scope. Its parent is the innermost
// scope open on this thread (activities do not follow work to other queues).
class ActivityScope {
 public:
  explicit ActivityScope(std::string_view name);
  ~ActivityScope();
  ActivityScope(const ActivityScope&) = delete;
  ActivityScope& operator=(const ActivityScope&) = delete;

  uint64_t id() const { return id_; }
  // The innermost open scope's id on this thread, or 0.
  static uint64_t Current();

 private:
  std::shared_ptr<Activities> service_;  // the one that began it ends it
  uint64_t id_;
  uint64_t previous_;
};

}  // namespace kx
