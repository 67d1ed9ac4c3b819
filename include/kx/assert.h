// The assertion handler. Every programming-error check names a fixed text and
// one of three strengths:
//   Fatal   - logged, then the process stops (every build).
//   Raising - throws kx::AssertionException in development and test builds;
//             in release builds it is logged and execution carries on.
//   Logging - logged only.
// The handler is replaceable so tests can observe every text. A replaced
// handler decides what Raising and Logging do; a Fatal assertion still stops
// the process after the handler returns.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kx {

enum class AssertionStrength { Fatal, Raising, Logging };

struct AssertionFailure {
  AssertionStrength strength;
  std::string text;
  const char* file;
  int line;
};

using AssertionHandler = std::function<void(const AssertionFailure&)>;

// Installs a handler (an empty one restores the default); returns the
// previous one. Safe to call from any thread.
AssertionHandler SetAssertionHandler(AssertionHandler handler);

// Reports a failed assertion through the current handler.
void AssertionFailed(AssertionStrength strength, const std::string& text, const char* file,
                     int line);

// Test support: while alive, records every assertion fired on any thread
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

#define KX_ASSERT_WITH(strength, cond, text)                                             \
  do {                                                                                   \
    if (!(cond)) [[unlikely]]                                                            \
      ::kx::AssertionFailed(::kx::AssertionStrength::strength, (text), __FILE__, __LINE__); \
  } while (0)

// Stops the process when `cond` is false.
#define KX_ASSERT_FATAL(cond, text) KX_ASSERT_WITH(Fatal, cond, text)
// Throws (development builds) or logs (release builds) when `cond` is false.
#define KX_ASSERT(cond, text) KX_ASSERT_WITH(Raising, cond, text)
// Logs when `cond` is false.
#define KX_ASSERT_LOG(cond, text) KX_ASSERT_WITH(Logging, cond, text)
