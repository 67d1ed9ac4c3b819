#include "model/query_id_counter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace kx {
namespace {

TEST(QueryIDCounterTest, WrapsThroughTheNegativeIDsBackToZero) {
  constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
  constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
  QueryIDCounter middle(kMax - 1);
  EXPECT_EQ(middle.next(), kMax);
  EXPECT_EQ(middle.next(), kMin);
  EXPECT_EQ(middle.next(), kMin + 1);
  QueryIDCounter end(std::numeric_limits<uint32_t>::max() - 1);
  EXPECT_EQ(end.next(), -1);
  EXPECT_EQ(end.next(), 0);
  EXPECT_EQ(end.next(), 1);
}

}  // namespace
}  // namespace kx
