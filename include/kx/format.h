// printf-style formatting with "%@" for an object's description.
//
// The conversions and flags follow printf (d i u o x X c s p f F e E g G a A
// %%, flags "-+ #0", width and precision including "*", length modifiers
// hh h l ll q z t j L, which only select how the argument is narrowed). "%@"
// inserts the argument's description; an absent object prints "(null)", as
// does a null C string for "%s". Arguments are type-safe: they are captured
// as `FormatArg`s, so a mismatch between a conversion and its argument
// converts the argument instead of reading garbage. Positional arguments
// ("%2$@", "%1$*2$d") work as in POSIX printf.
//
// Too few arguments never crash: a directive whose argument is missing prints
// nothing, except "%@", which prints "(null)". "%p" prints "0x" and hex
// digits ("0x0" for null); "%n" writes nothing; an unknown or unfinished
// directive is copied as it stands. Width and precision saturate at 2^20.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "kx/value.h"

namespace kx {

class KX_EXPORT FormatArg {
 public:
  template <class T>
    requires(std::is_integral_v<T> && std::is_signed_v<T> && !std::is_same_v<T, bool>)
  FormatArg(T v) : v_(static_cast<int64_t>(v)) {}
  template <class T>
    requires(std::is_integral_v<T> && std::is_unsigned_v<T> && !std::is_same_v<T, bool>)
  FormatArg(T v) : v_(static_cast<uint64_t>(v)) {}
  template <class T>
    requires std::is_enum_v<T>
  FormatArg(T v) : v_(static_cast<int64_t>(v)) {}
  FormatArg(bool v) : v_(int64_t{v}) {}
  FormatArg(double v) : v_(v) {}
  FormatArg(float v) : v_(double{v}) {}
  FormatArg(long double v) : v_(static_cast<double>(v)) {}
  FormatArg(const char* s) : v_(s) {}
  FormatArg(char* s) : v_(static_cast<const char*>(s)) {}
  FormatArg(const std::string& s) : v_(std::string_view(s)) {}
  FormatArg(std::string_view s) : v_(s) {}
  FormatArg(const std::optional<std::string>& s)
      : v_(s ? Value(*s) : Value()) {}
  FormatArg(const void* p) : v_(p) {}
  FormatArg(const Value& v) : v_(&v) {}
  template <class T>
    requires std::is_base_of_v<Object, T>
  FormatArg(const std::shared_ptr<T>& o) : v_(Value(ObjectRef(o))) {}
  template <class T>
    requires std::is_base_of_v<Object, T>
  FormatArg(const T* o)
      : v_(o ? Value(std::const_pointer_cast<Object>(o->shared_from_this())) : Value()) {}

  // int64_t, uint64_t, double, C string, string view, pointer, borrowed value,
  // owned value.
  using Storage = std::variant<int64_t, uint64_t, double, const char*, std::string_view,
                               const void*, const Value*, Value>;
  const Storage& storage() const { return v_; }

 private:
  Storage v_;
};

KX_EXPORT std::string FormatV(std::string_view format, std::span<const FormatArg> args);

template <class... Args>
std::string Format(std::string_view format, const Args&... args) {
  const FormatArg captured[] = {FormatArg(args)..., FormatArg(0)};
  return FormatV(format, std::span<const FormatArg>(captured, sizeof...(Args)));
}

}  // namespace kx
