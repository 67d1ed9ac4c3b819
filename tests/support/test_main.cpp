#include <gtest/gtest.h>

#include "tests/support/test_environment.h"

int main(int argc, char** argv) {
  // Death tests fork; the thread-safe style re-executes the binary so the
  // child never inherits a half-held lock from another thread.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  testing::InitGoogleTest(&argc, argv);
  kx::test::SetUpIsolatedEnvironment();
  return RUN_ALL_TESTS();
}
