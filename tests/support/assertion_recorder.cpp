#include "tests/support/assertion_recorder.h"

#include <condition_variable>
#include <mutex>

namespace kx {

struct ScopedAssertionRecorder::State {
  mutable std::mutex mutex;
  mutable std::condition_variable recorded;
  std::vector<AssertionFailure> failures;
};

ScopedAssertionRecorder::ScopedAssertionRecorder() : state_(std::make_shared<State>()) {
  previous_ = SetAssertionHandler([state = state_](const AssertionFailure& failure) {
    {
      std::lock_guard lock(state->mutex);
      state->failures.push_back(failure);
    }
    state->recorded.notify_all();
  });
}

ScopedAssertionRecorder::~ScopedAssertionRecorder() { SetAssertionHandler(std::move(previous_)); }

std::vector<AssertionFailure> ScopedAssertionRecorder::failures() const {
  std::lock_guard lock(state_->mutex);
  return state_->failures;
}

std::vector<std::string> ScopedAssertionRecorder::texts() const {
  std::lock_guard lock(state_->mutex);
  std::vector<std::string> texts;
  texts.reserve(state_->failures.size());
  for (const AssertionFailure& failure : state_->failures) texts.push_back(failure.text);
  return texts;
}

bool ScopedAssertionRecorder::WaitForCount(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->recorded.wait_for(lock, timeout,
                                   [&] { return state_->failures.size() >= count; });
}

}  // namespace kx
