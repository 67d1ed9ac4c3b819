#include "kx/assert.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "kx/exception.h"
#include "kx/format.h"
#include "kx/log.h"
#include "tests/support/assertion_recorder.h"

namespace kx {
namespace {

TEST(Assert, RaisingThrowsTheTextInDevelopmentBuilds) {
  int evaluated = 0;
  KX_ASSERT((++evaluated, true), "never built");
  EXPECT_EQ(evaluated, 1);
#ifdef KX_DEVELOPMENT_ASSERTIONS
  try {
    KX_ASSERT(evaluated == 0, "raised text");
    FAIL() << "no exception";
  } catch (const AssertionException& e) {
    EXPECT_EQ(e.reason(), "raised text");
  }
#else
  KX_ASSERT(evaluated == 0, "raised text");  // logs and carries on
#endif
}

TEST(Assert, LoggingAssertionsLogUnderTheirOwnSourcePosition) {
  setKXLogLevel(7);
  setKXLogOutputLevel(7);
  testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  KX_ASSERT_LOG(false, "soft text");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            Format("assert_test.cpp:%d soft text\n", line));
}

TEST(AssertDeathTest, FatalStopsTheProcessWhateverTheHandler) {
  EXPECT_DEATH(KX_ASSERT_FATAL(false, "fatal text"), "assert_test.cpp:[0-9]+: fatal assertion: fatal text");
  EXPECT_DEATH(
      {
        ScopedAssertionRecorder recorder;
        KX_ASSERT_FATAL(false, "recorded but fatal");
      },
      "recorded but fatal");
  EXPECT_DEATH(
      {
        SetAssertionHandler([](const AssertionFailure&) { throw std::runtime_error("escape"); });
        KX_ASSERT_FATAL(false, "handler threw");
      },
      "handler threw");
}

TEST(Assert, RecorderCollectsFromEveryThreadAndRestoresThePreviousHandler) {
  std::vector<std::string> outer;
  SetAssertionHandler([&outer](const AssertionFailure& f) { outer.push_back(f.text); });
  {
    ScopedAssertionRecorder recorder;
    KX_ASSERT(false, "raising");  // recorded, not thrown
    std::thread late([] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      KX_ASSERT_LOG(false, "from a thread");
    });
    EXPECT_TRUE(recorder.WaitForCount(2, std::chrono::seconds(10)));
    late.join();
    EXPECT_FALSE(recorder.WaitForCount(3, std::chrono::milliseconds(1)));
    EXPECT_EQ(recorder.texts(), (std::vector<std::string>{"raising", "from a thread"}));
    const std::vector<AssertionFailure> failures = recorder.failures();
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].strength, AssertionStrength::Raising);
    EXPECT_EQ(failures[1].strength, AssertionStrength::Logging);
  }
  KX_ASSERT_LOG(false, "after");
  EXPECT_EQ(outer, std::vector<std::string>{"after"});

  // Installing an empty handler restores the default and hands back ours.
  EXPECT_TRUE(SetAssertionHandler(nullptr));
  EXPECT_FALSE(SetAssertionHandler(nullptr));
}

}  // namespace
}  // namespace kx
