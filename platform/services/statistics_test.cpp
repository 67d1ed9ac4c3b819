#include "platform/services/statistics.h"

#include <gtest/gtest.h>

#include <thread>

namespace kx {
namespace {

TEST(StatisticsTest, DistributionKeepsAggregatesAndTheLatestSamples) {
  InProcessStatistics stats;
  EXPECT_EQ(stats.distribution("k"), std::nullopt);
  const size_t total = InProcessStatistics::kMaxSamples + 3;
  for (size_t i = 0; i < total; ++i) stats.pushTimeInterval("k", static_cast<double>(i % 7) + 1);
  auto d = stats.distribution("k");
  ASSERT_TRUE(d);
  EXPECT_EQ(d->count, total);
  EXPECT_DOUBLE_EQ(d->min, 1);
  EXPECT_DOUBLE_EQ(d->max, 7);
  double sum = 0;
  for (size_t i = 0; i < total; ++i) sum += static_cast<double>(i % 7) + 1;
  EXPECT_DOUBLE_EQ(d->sum, sum);
  ASSERT_EQ(d->samples.size(), InProcessStatistics::kMaxSamples);
  // Oldest kept sample first, newest last.
  EXPECT_DOUBLE_EQ(d->samples.front(), static_cast<double>(3 % 7) + 1);
  EXPECT_DOUBLE_EQ(d->samples.back(), static_cast<double>((total - 1) % 7) + 1);
  stats.pushTimeInterval("a", 0.5);
  EXPECT_EQ(stats.keys(), (std::vector<std::string>{"a", "k"}));
}

TEST(StatisticsTest, IntervalSinceAStampUsesTheMonotonicClockAndSharedIsReplaceable) {
  auto mine = std::make_shared<InProcessStatistics>();
  Statistics::SetShared(mine);
  EXPECT_EQ(Statistics::Shared(), mine);
  const uint64_t start = MonotonicNanoseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  Statistics::Shared()->pushTimeIntervalSince("latency", start);
  Statistics::Shared()->pushTimeIntervalSince("future", MonotonicNanoseconds() + 1'000'000'000);
  auto d = mine->distribution("latency");
  ASSERT_TRUE(d);
  EXPECT_GE(d->min, 0.020);
  EXPECT_LT(d->max, 5.0);
  EXPECT_DOUBLE_EQ(mine->distribution("future")->max, 0.0);
  Statistics::SetShared(nullptr);
  EXPECT_NE(Statistics::Shared(), mine);
}

}  // namespace
}  // namespace kx
