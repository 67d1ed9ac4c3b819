#include "kx/assert.h"

#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "kx/exception.h"
#include "kx/format.h"
#include "kx/log.h"

namespace kx {
namespace {

// The installed handler; null means the default one. Callers copy the
// pointer under the lock and call the handler outside it, so a handler may
// itself assert or swap handlers.
std::mutex handlerMutex;
std::shared_ptr<const AssertionHandler> installedHandler;

std::shared_ptr<const AssertionHandler> CurrentHandler() {
  std::lock_guard lock(handlerMutex);
  return installedHandler;
}

// Logged under the assertion's own source position, not this file's.
void LogFailure(const AssertionFailure& failure, int level) {
  if (gKXLogLevel.load(std::memory_order_relaxed) >= level)
    _KXLog(failure.file, failure.line, level, "%@", failure.text);
}

void DefaultHandler(const AssertionFailure& failure) {
  switch (failure.strength) {
    case AssertionStrength::Fatal:
      LogFailure(failure, 2);  // the caller stops the process
      return;
    case AssertionStrength::Raising:
#ifdef KX_DEVELOPMENT_ASSERTIONS
      throw AssertionException(failure.text);
#else
      LogFailure(failure, 3);
      return;
#endif
    case AssertionStrength::Logging:
      LogFailure(failure, 3);
      return;
  }
}

[[noreturn]] void StopProcess(const AssertionFailure& failure) {
  const std::string text =
      Format("%s:%d: fatal assertion: %@\n", failure.file, failure.line, failure.text);
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
  std::abort();
}

}  // namespace

AssertionHandler SetAssertionHandler(AssertionHandler handler) {
  std::shared_ptr<const AssertionHandler> next;
  if (handler) next = std::make_shared<const AssertionHandler>(std::move(handler));
  {
    std::lock_guard lock(handlerMutex);
    installedHandler.swap(next);
  }
  return next ? *next : AssertionHandler();
}

void AssertionFailed(AssertionStrength strength, const std::string& text, const char* file,
                     int line) {
  const AssertionFailure failure{strength, text, file, line};
  const std::shared_ptr<const AssertionHandler> handler = CurrentHandler();
  if (strength != AssertionStrength::Fatal) {
    handler ? (*handler)(failure) : DefaultHandler(failure);
    return;
  }
  // A fatal assertion stops the process in every build, whatever the
  // handler does, including throwing.
  try {
    handler ? (*handler)(failure) : DefaultHandler(failure);
  } catch (...) {
  }
  StopProcess(failure);
}

}  // namespace kx
