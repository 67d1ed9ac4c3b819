// GCC 12 with the sanitizers' instrumentation at -O1 reports std::function
// members inside libstdc++'s own regex automaton as maybe-uninitialized; the
// warning is about inlined library code, not ours. It must be silenced
// before the first header brings in <functional>.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include "platform/process/process_info.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <thread>

#include "platform/process/helper_process_testing.h"

namespace kx {
namespace {

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

TEST(ProcessInfoTest, BundleIdentifierFallsBackToEnvironmentThenExecutable) {
  EXPECT_EQ("platform_process_tests", ProcessName());
  EXPECT_EQ("platform_process_tests", BundleIdentifier());
  SetBundleIdentifier("com.kx.test.app");
  EXPECT_EQ("com.kx.test.app", BundleIdentifier());
  SetBundleIdentifier("");
  EXPECT_EQ("platform_process_tests", BundleIdentifier());

  EXPECT_EQ("com.kx.test.env\npreferences_helper\n",
            test::RunHelper("preferences_helper", {"identity"},
                            {{"KX_BUNDLE_IDENTIFIER", "com.kx.test.env"}})
                .output);
  EXPECT_EQ("preferences_helper\npreferences_helper\n",
            test::RunHelper("preferences_helper", {"identity"},
                            {{"KX_BUNDLE_IDENTIFIER", ""}})
                .output);
}

TEST(ProcessInfoTest, ThreadDescriptionsAreStableAndNumberTheMainThreadOne) {
  const std::string main = CurrentThreadDescription();
  EXPECT_TRUE(std::regex_match(main, std::regex(R"(<KXThread: 0x[0-9a-f]+>\{number = 1, name = main\})")))
      << main;
  EXPECT_EQ(main, CurrentThreadDescription());

  std::string first, second, named;
  std::thread([&] { first = CurrentThreadDescription(); }).join();
  std::thread([&] { second = CurrentThreadDescription(); }).join();
  std::thread([&] {
    pthread_setname_np(pthread_self(), "kx-worker");
    named = CurrentThreadDescription();
  }).join();
  const std::regex other(R"(<KXThread: 0x[0-9a-f]+>\{number = ([0-9]+), name = (.*)\})");
  std::smatch a, b, c;
  ASSERT_TRUE(std::regex_match(first, a, other)) << first;
  ASSERT_TRUE(std::regex_match(second, b, other)) << second;
  ASSERT_TRUE(std::regex_match(named, c, other)) << named;
  EXPECT_EQ("(null)", a[2]);
  EXPECT_GE(std::stoi(a[1]), 2);
  EXPECT_LT(std::stoi(a[1]), std::stoi(b[1]));
  EXPECT_EQ("kx-worker", c[2]);
}

TEST(ProcessInfoTest, DirectoriesFollowTheEnvironmentAndAreCreatedPrivate) {
  EXPECT_EQ(Env("HOME"), HomeDirectory());
  EXPECT_EQ(Env("XDG_RUNTIME_DIR"), RuntimeDirectory());
  EXPECT_EQ(Env("XDG_CONFIG_HOME"), ConfigDirectory());
  EXPECT_EQ(Env("XDG_DATA_HOME"), UserLibraryDirectory());
  for (const auto& [variable, path] : {std::pair{"KX_SERVICE_DIR", ServiceDirectory()},
                                       std::pair{"KX_NOTIFY_DIR", NotifyDirectory()}}) {
    EXPECT_EQ(Env(variable), path);
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st)) << path;
    EXPECT_EQ(0700u, st.st_mode & 0777) << path;
  }
  if (!Env("KX_RESOURCE_DIR").empty()) {
    EXPECT_EQ(Env("KX_RESOURCE_DIR"), ResourceDirectory());
  }

  // Without the overrides the directories sit below the runtime directory.
  const std::string run = Env("XDG_RUNTIME_DIR");
  EXPECT_EQ(run + "/kx-services\n",
            test::RunHelper("preferences_helper", {"directory", "service"},
                            {{"KX_SERVICE_DIR", std::nullopt}})
                .output);
}

TEST(ProcessInfoTest, UnusableDirectoriesRaiseAClearError) {
  const std::string blocker = test::TestRoot() + "/blocker";
  std::ofstream(blocker) << "x";
  for (const auto& [which, variable] : {std::pair{"service", "KX_SERVICE_DIR"},
                                        std::pair{"notify", "KX_NOTIFY_DIR"},
                                        std::pair{"library", "XDG_DATA_HOME"}}) {
    const test::HelperRun run = test::RunHelper("preferences_helper", {"directory", which},
                                                {{variable, blocker + "/sub"}});
    EXPECT_EQ(1, run.exitCode) << which;
    EXPECT_NE(std::string::npos, run.output.find("error: \"" + blocker + "\"")) << run.output;
  }
}

TEST(ProcessInfoTest, DataDirectoriesKeepOrderAndDropRelativeEntries) {
  setenv("XDG_DATA_DIRS", "/opt/share::relative:/usr/share/", 1);
  EXPECT_EQ((std::vector<std::string>{"/opt/share", "/usr/share/"}), DataDirectories());
  unsetenv("XDG_DATA_DIRS");
  EXPECT_EQ((std::vector<std::string>{"/usr/local/share", "/usr/share"}), DataDirectories());
}

}  // namespace
}  // namespace kx
