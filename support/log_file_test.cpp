#include "support/log_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/test_environment.h"

namespace kx {
namespace {

namespace fs = std::filesystem;

// Generation n of the fixture holds n bytes, so every move shows in sizes.
class LogFileTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = test::TestRoot() + "/logs/";
    fs::create_directories(dir_);
  }
  std::string Path(long n) const { return logFilePathWithNumber(dir_, n); }
  void Make(long n, uintmax_t size) const {
    std::ofstream(Path(n)).flush();
    fs::resize_file(Path(n), size);
  }
  size_t FileCount() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir_), {}));
  }

  std::string dir_;
};

TEST_F(LogFileTest, RotatesOnlyWhenStrictlyLargerThanTheLimit) {
  EXPECT_FALSE(RotateLogFilesIfNeeded(dir_));  // no live file counts as empty
  Make(0, kLogRotationSize);
  EXPECT_FALSE(RotateLogFilesIfNeeded(dir_));
  EXPECT_EQ(fs::file_size(Path(0)), static_cast<uintmax_t>(kLogRotationSize));
  EXPECT_FALSE(fs::exists(Path(1)));

  fs::resize_file(Path(0), kLogRotationSize + 1);
  EXPECT_TRUE(RotateLogFilesIfNeeded(dir_));
  EXPECT_FALSE(fs::exists(Path(0)));
  EXPECT_EQ(fs::file_size(Path(1)), static_cast<uintmax_t>(kLogRotationSize + 1));
}

TEST_F(LogFileTest, FullSetDropsTheOldestAndStartsAnEmptyLiveFile) {
  Make(0, kLogRotationSize + 1);
  for (long n = 1; n < kLogGenerations; ++n) Make(n, static_cast<uintmax_t>(n));
  ASSERT_EQ(FileCount(), static_cast<size_t>(kLogGenerations));

  const LogFileOpenResult opened = OpenLogFile(dir_);
  ASSERT_GE(opened.fd, 0);
  close(opened.fd);
  EXPECT_EQ(FileCount(), static_cast<size_t>(kLogGenerations));
  EXPECT_EQ(fs::file_size(Path(0)), 0u);
  EXPECT_EQ(fs::file_size(Path(1)), static_cast<uintmax_t>(kLogRotationSize + 1));
  for (long n = 2; n < kLogGenerations; ++n)
    EXPECT_EQ(fs::file_size(Path(n)), static_cast<uintmax_t>(n - 1)) << n;
}

TEST_F(LogFileTest, GapsInTheGenerationsAreSkipped) {
  Make(0, kLogRotationSize + 1);
  Make(5, 5);
  EXPECT_TRUE(RotateLogFilesIfNeeded(dir_));
  EXPECT_EQ(FileCount(), 2u);
  EXPECT_EQ(fs::file_size(Path(1)), static_cast<uintmax_t>(kLogRotationSize + 1));
  EXPECT_EQ(fs::file_size(Path(6)), 5u);
}

TEST_F(LogFileTest, OpenCreatesTheDirectoryAndAnOwnerOnlyAppendFile) {
  const std::string nested = dir_ + "deeper/still/";
  const LogFileOpenResult opened = OpenLogFile(nested);
  ASSERT_GE(opened.fd, 0) << opened.error;
  EXPECT_EQ(opened.path, nested + "search.log");
  const int flags = fcntl(opened.fd, F_GETFL);
  EXPECT_TRUE(flags & O_APPEND);
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  EXPECT_TRUE(fcntl(opened.fd, F_GETFD) & FD_CLOEXEC);
  struct stat st;
  ASSERT_EQ(fstat(opened.fd, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  close(opened.fd);
}

}  // namespace
}  // namespace kx
