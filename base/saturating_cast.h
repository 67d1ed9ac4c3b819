// Double-to-integer conversion without undefined behaviour.
#pragma once

#include <cmath>
#include <limits>

namespace kx {

// Converts the way C does for values in range; out-of-range values saturate
// and NaN gives zero.
template <class I>
I SaturatingCast(double d) {
  if (std::isnan(d)) return 0;
  // The limits as doubles: max()+1 is a power of two and exact.
  constexpr double kUpper = static_cast<double>(std::numeric_limits<I>::max() / 2 + 1) * 2.0;
  constexpr double kLower = static_cast<double>(std::numeric_limits<I>::min());
  if (d >= kUpper) return std::numeric_limits<I>::max();
  if (d < kLower) return std::numeric_limits<I>::min();
  return static_cast<I>(d);
}

}  // namespace kx
