// Observing assertions in tests.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "kx/assert.h"

namespace kx {

// While alive, records every assertion fired on any thread
// instead of throwing or logging it (a Fatal one still stops the process).
// Assertions that fire on a queue cannot be caught as exceptions; this is
// how tests observe them. Restores the previous handler when destroyed, so
// recorders must be destroyed in reverse order of creation.
class ScopedAssertionRecorder {
 public:
  ScopedAssertionRecorder();
  ~ScopedAssertionRecorder();
  ScopedAssertionRecorder(const ScopedAssertionRecorder&) = delete;
  ScopedAssertionRecorder& operator=(const ScopedAssertionRecorder&) = delete;

  // Snapshots, in the order the assertions fired.
  std::vector<AssertionFailure> failures() const;
  std::vector<std::string> texts() const;
  // Waits until at least `count` assertions have been recorded; false when
  // `timeout` passed first.
  bool WaitForCount(size_t count, std::chrono::milliseconds timeout) const;

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with the installed handler
  AssertionHandler previous_;
};

}  // namespace kx
