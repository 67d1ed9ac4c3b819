#include "feedback/feedback_time.h"

#include <cmath>
#include <limits>

namespace kx {

int64_t TruncateToInt64(double value) {
  if (std::isnan(value)) return 0;
  // -2^63 is exact as a double and fits; 2^63 is the first value that does
  // not. Both bounds are exact, so the comparisons decide before any cast.
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (value >= kTwoTo63) return std::numeric_limits<int64_t>::max();
  if (value < -kTwoTo63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

int64_t MillisecondsBetween(double from, double to) { return TruncateToInt64((to - from) * 1000.0); }

}  // namespace kx
