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

#include "kx/export.h"

#include <functional>
#include <string>

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
KX_EXPORT AssertionHandler SetAssertionHandler(AssertionHandler handler);

// Reports a failed assertion through the current handler.
KX_EXPORT void AssertionFailed(AssertionStrength strength, const std::string& text, const char* file,
                     int line);

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
