#include "feedback/feedback_time.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kx {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

TEST(FeedbackTimeTest, TruncatesTowardZeroAndSaturates) {
  EXPECT_EQ(TruncateToInt64(12.9), 12);
  EXPECT_EQ(TruncateToInt64(-12.9), -12);
  EXPECT_EQ(TruncateToInt64(std::nan("")), 0);
  EXPECT_EQ(TruncateToInt64(INFINITY), kMax);
  EXPECT_EQ(TruncateToInt64(-INFINITY), kMin);
  EXPECT_EQ(TruncateToInt64(9223372036854775808.0), kMax);  // 2^63: first value beyond
  EXPECT_EQ(TruncateToInt64(-9223372036854775808.0), kMin);  // -2^63 still fits
  EXPECT_EQ(TruncateToInt64(std::nextafter(9223372036854775808.0, 0.0)),
            int64_t{9223372036854774784});
}

TEST(FeedbackTimeTest, MillisecondsAreTruncatedDifferences) {
  EXPECT_EQ(MillisecondsBetween(100.0, 101.5), 1500);
  EXPECT_EQ(MillisecondsBetween(0.0, -0.0019), -1);
  EXPECT_EQ(MillisecondsBetween(-1e300, 1e300), kMax);
  EXPECT_EQ(MillisecondsBetween(INFINITY, INFINITY), 0);  // inf - inf is NaN
}

}  // namespace
}  // namespace kx
