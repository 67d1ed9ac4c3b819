// Typed exceptions for operations that "raise with a reason".
#pragma once

#include "kx/export.h"

#include <stdexcept>
#include <string>

namespace kx {

// Base of every exception the library raises. `name()` is the exception's
// kind as the platform would spell it; `reason()` is the fixed text.
class KX_EXPORT Exception : public std::runtime_error {
 public:
  Exception(std::string name, std::string reason)
      : std::runtime_error(reason), name_(std::move(name)), reason_(std::move(reason)) {}
  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }

 private:
  std::string name_;
  std::string reason_;
};

class KX_EXPORT InternalInconsistencyException : public Exception {
 public:
  explicit InternalInconsistencyException(std::string reason)
      : Exception("NSInternalInconsistencyException", std::move(reason)) {}
};

class KX_EXPORT InvalidArgumentException : public Exception {
 public:
  explicit InvalidArgumentException(std::string reason)
      : Exception("NSInvalidArgumentException", std::move(reason)) {}
};

// Thrown by raising assertions in development and test builds.
class KX_EXPORT AssertionException : public Exception {
 public:
  explicit AssertionException(std::string text)
      : Exception("KXAssertionFailure", std::move(text)) {}
};

}  // namespace kx
