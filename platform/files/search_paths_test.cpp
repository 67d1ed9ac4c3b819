#include "kx/search_paths.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "kx/log.h"
#include "tests/support/test_environment.h"

// Every test runs in a process of its own, so the cached paths are computed
// from the environment each test sets up first.
namespace {

namespace fs = std::filesystem;

TEST(SearchPaths, SupportDirectoryIsInTheUserLibrary) {
  const std::string library = kx::test::TestRoot() + "/library";
  setenv("XDG_DATA_HOME", library.c_str(), 1);
  EXPECT_EQ(KXSkylumeSupportDirectoryPath(), library + "/Skylume");
  setenv("XDG_DATA_HOME", "/elsewhere", 1);
  EXPECT_EQ(KXSkylumeSupportDirectoryPath(), library + "/Skylume");
}

TEST(SearchPaths, MissingUserLibraryIsLoggedOnce) {
  setKXLogLevel(3);
  const std::string blocker = kx::test::TestRoot() + "/blocker";
  std::ofstream(blocker) << "x";
  setenv("XDG_DATA_HOME", (blocker + "/share").c_str(), 1);
  EXPECT_EQ(KXSkylumeSupportDirectoryPath(), std::nullopt);
  EXPECT_EQ(KXSkylumeSupportDirectoryPath(), std::nullopt);

  const std::string text = kx::test::ReadLiveLogFile();
  const std::string line = "Can't get skylume support directory path!\n";
  const size_t first = text.find(line);
  ASSERT_NE(first, std::string::npos) << text;
  EXPECT_EQ(text.find(line, first + 1), std::string::npos);
}

TEST(SearchPaths, FrameworkPathResolvesSymbolicLinks) {
  const fs::path root(kx::test::TestRoot());
  fs::create_directories(root / "real/bundle");
  fs::create_directory_symlink(root / "real", root / "alias");
  setenv("KX_RESOURCE_DIR", (root / "alias/bundle").c_str(), 1);
  const std::string expected = fs::canonical(root / "real/bundle").string();
  EXPECT_EQ(KXSearchFrameworkPath(), expected);
  setenv("KX_RESOURCE_DIR", "/elsewhere", 1);
  EXPECT_EQ(KXSearchFrameworkPath(), expected);
}

}  // namespace
