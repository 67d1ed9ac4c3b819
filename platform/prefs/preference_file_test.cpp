#include "platform/prefs/preference_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "base/property_list.h"
#include "tests/support/test_environment.h"

namespace kx {
namespace {

using State = PreferenceFileContents::State;

class PreferenceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = test::TestRoot() + "/file-" +
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::filesystem::create_directories(dir_);
    path_ = dir_ + "/domain.plist";
  }

  FileStamp Write(const Value& values, const FileStamp& previous) {
    FileStamp written;
    std::string error;
    EXPECT_TRUE(ReplacePreferenceFile(path_, values, previous, &written, &error)) << error;
    return written;
  }

  std::string dir_, path_;
};

TEST_F(PreferenceFileTest, ReadTellsMissingValidDamagedAndUnreadableApart) {
  EXPECT_EQ(State::Missing, ReadPreferenceFile(path_).state);
  EXPECT_EQ(State::Missing, ReadPreferenceFile(path_ + "/below").state);

  Write(Value(MakeDictionary({{"k", "v"}})), FileStamp{});
  PreferenceFileContents valid = ReadPreferenceFile(path_);
  ASSERT_EQ(State::Valid, valid.state);
  EXPECT_EQ(Value("v"), (*valid.values).at("k"));
  EXPECT_EQ(StatPreferenceFile(path_), valid.stamp);
  struct stat st;
  ASSERT_EQ(0, stat(path_.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);

  std::ofstream(path_, std::ios::trunc) << "bplist00 this is not a property list";
  PreferenceFileContents damaged = ReadPreferenceFile(path_);
  EXPECT_EQ(State::Damaged, damaged.state);
  EXPECT_FALSE(damaged.problem.empty());
  EXPECT_TRUE(damaged.values->empty());

  std::vector<uint8_t> array = EncodeBinaryPropertyList(Value(Array{Value(1)}));
  std::ofstream(path_, std::ios::trunc | std::ios::binary)
      .write(reinterpret_cast<const char*>(array.data()), static_cast<std::streamsize>(array.size()));
  EXPECT_EQ(State::Damaged, ReadPreferenceFile(path_).state);

  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  EXPECT_EQ(State::Unreadable, ReadPreferenceFile(path_).state);
}

// Versions written back to back, all of one size, reuse freed inode numbers;
// their stamps must still differ or readers would keep a stale cache.
TEST_F(PreferenceFileTest, EveryVersionGetsADistinctLaterStamp) {
  FileStamp previous;
  for (int i = 0; i < 200; ++i) {
    const FileStamp written = Write(Value(MakeDictionary({{"n", i % 10}})), previous);
    ASSERT_EQ(written, StatPreferenceFile(path_));
    if (previous.exists) {
      ASSERT_GT(written.modifiedNs, previous.modifiedNs) << i;
    }
    previous = written;
  }
}

TEST_F(PreferenceFileTest, WriterRemovesTemporariesOfDeadWritersOnly) {
  const std::string stale = dir_ + "/.domain.plist.AbC123";
  const std::string longer = dir_ + "/.domain.plist.AbC1234";
  const std::string other = dir_ + "/.other.plist.AbC123";
  for (const std::string& p : {stale, longer, other}) std::ofstream(p) << "partial";
  Write(Value(Dictionary{}), FileStamp{});
  EXPECT_FALSE(std::filesystem::exists(stale));
  EXPECT_TRUE(std::filesystem::exists(longer));
  EXPECT_TRUE(std::filesystem::exists(other));
}

TEST_F(PreferenceFileTest, LockExcludesAnotherHolderUntilReleased) {
  std::string error;
  std::optional<PreferenceFileLock> held = PreferenceFileLock::Acquire(path_, &error);
  ASSERT_TRUE(held) << error;
  std::atomic<bool> acquired{false};
  std::thread other([&] {
    std::string otherError;
    auto lock = PreferenceFileLock::Acquire(path_, &otherError);
    acquired = lock.has_value();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(acquired);
  held.reset();
  other.join();
  EXPECT_TRUE(acquired);

  std::ofstream(dir_ + "/file") << "x";
  EXPECT_FALSE(PreferenceFileLock::Acquire(dir_ + "/file/domain.plist", &error));
  EXPECT_NE(std::string::npos, error.find("/file/domain.plist.lock")) << error;
}

}  // namespace
}  // namespace kx
