#include "platform/process/directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/test_environment.h"

namespace kx {
namespace {

mode_t ModeOf(const std::string& path) {
  struct stat st;
  EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
  return st.st_mode & 07777;
}

TEST(DirectoryTest, MakeDirectoriesCreatesPrivateParentsAndStopsAtAFile) {
  const std::string root = test::TestRoot() + "/made";
  std::string error;
  ASSERT_TRUE(MakeDirectories(root + "/a//b/c/", &error)) << error;
  EXPECT_EQ(0700u, ModeOf(root + "/a/b/c"));
  EXPECT_EQ(0700u, ModeOf(root + "/a"));
  ASSERT_EQ(0, chmod((root + "/a").c_str(), 0755));
  ASSERT_TRUE(MakeDirectories(root + "/a/d", &error)) << error;
  EXPECT_EQ(0755u, ModeOf(root + "/a"));  // existing directories keep their mode

  std::ofstream(root + "/a/file") << "x";
  EXPECT_FALSE(MakeDirectories(root + "/a/file/sub", &error));
  EXPECT_NE(std::string::npos, error.find(root + "/a/file")) << error;
  EXPECT_FALSE(MakeDirectories(root + "/a/file", &error));
  EXPECT_FALSE(MakeDirectories("relative/path", &error));
}

TEST(DirectoryTest, PrivateDirectoryRefusesWhatAnotherUserCouldControl) {
  const std::string root = test::TestRoot() + "/private";
  std::string error;
  ASSERT_TRUE(MakePrivateDirectory(root + "/new", &error)) << error;
  EXPECT_EQ(0700u, ModeOf(root + "/new"));
  EXPECT_TRUE(MakePrivateDirectory(root + "/new", &error)) << error;

  ASSERT_EQ(0, symlink((root + "/new").c_str(), (root + "/link").c_str()));
  EXPECT_FALSE(MakePrivateDirectory(root + "/link", &error));
  EXPECT_NE(std::string::npos, error.find("symbolic link")) << error;

  ASSERT_EQ(0, mkdir((root + "/open").c_str(), 0700));
  ASSERT_EQ(0, chmod((root + "/open").c_str(), 0755));
  EXPECT_FALSE(MakePrivateDirectory(root + "/open", &error));
  EXPECT_NE(std::string::npos, error.find("755")) << error;

  std::ofstream(root + "/file") << "x";
  EXPECT_FALSE(MakePrivateDirectory(root + "/file", &error));
  EXPECT_FALSE(MakePrivateDirectory(root + "/file/sub", &error));

  if (geteuid() == 0) {  // only root can hand a directory to another user
    ASSERT_EQ(0, mkdir((root + "/theirs").c_str(), 0700));
    ASSERT_EQ(0, chown((root + "/theirs").c_str(), 65534, 65534));
    EXPECT_FALSE(MakePrivateDirectory(root + "/theirs", &error));
    EXPECT_NE(std::string::npos, error.find("another user")) << error;
  }
}

}  // namespace
}  // namespace kx
