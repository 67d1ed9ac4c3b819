#include "platform/prefs/preferences.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "kx/log.h"
#include "platform/process/helper_process_testing.h"
#include "platform/prefs/preference_file.h"
#include "tests/support/test_environment.h"

namespace kx {
namespace {

namespace fs = std::filesystem;
using PS = PreferenceStore;

class PreferencesTest : public ::testing::Test {
 protected:
  // A domain of its own for every test, so the tests also pass when they
  // share one process.
  const std::string domain_ =
      std::string("com.kx.test.") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
  const std::string path_ = PS::PathForDomain(domain_);
};

int CountLogLines(const std::string& needle) {
  std::istringstream log(kx::test::ReadLiveLogFile());
  int count = 0;
  for (std::string line; std::getline(log, line);) count += line.find(needle) != std::string::npos;
  return count;
}

TEST_F(PreferencesTest, StoresPropertyListValuesAndKeepsAbsentApartFromEmpty) {
  const Dictionary values = MakeDictionary({
      {"empty", ""}, {"int", int64_t{1} << 40}, {"bool", true}, {"double", 2.5},
      {"data", Value::Bytes{0, 1, 2}}, {"date", Date{12345.5}},
      {"array", Array{Value("a"), Value(7)}}, {"dict", MakeDictionary({{"x", "y"}})}});
  for (const auto& [key, value] : values) PS::SetValue(key, value, domain_);
  EXPECT_EQ(values, PS::CopyAll(domain_));
  ASSERT_NE(nullptr, PS::CopyValue("empty", domain_).string());
  EXPECT_TRUE(PS::CopyValue("missing", domain_).isNil());
  ASSERT_NE(nullptr, PS::CopyValue("bool", domain_).number());
  EXPECT_TRUE(PS::CopyValue("bool", domain_).number()->isBool());

  PS::SetValue("int", Value(), domain_);
  EXPECT_TRUE(PS::CopyValue("int", domain_).isNil());
  Dictionary expected = values;
  expected.erase("int");
  EXPECT_EQ(expected, *ReadPreferenceFile(path_).values);
}

TEST_F(PreferencesTest, RefusesUnsafeDomainNamesAndNonPropertyListValues) {
  for (const std::string& name : {std::string(), std::string("../escape"), std::string("a/b"),
                                  std::string(".hidden"), std::string(201, 'x')}) {
    PS::SetValue("k", Value(1), name);
    EXPECT_TRUE(PS::CopyValue("k", name).isNil()) << name;
    EXPECT_FALSE(PS::Synchronize(name)) << name;
    EXPECT_EQ("", PS::PathForDomain(name)) << name;
  }
  EXPECT_FALSE(fs::exists(fs::path(PS::DirectoryPath()).parent_path() / "escape.plist"));

  PS::SetValue("k", Value(1), domain_);
  PS::SetValue("k", Value::Null(), domain_);
  PS::SetValue("k", Value(URL::FileURLWithPath("/tmp")), domain_);
  EXPECT_EQ(Value(1), PS::CopyValue("k", domain_));
  EXPECT_TRUE(PS::Synchronize(domain_));  // the refused values left nothing stuck
}

// Another writer replaces the file under the store's cache with versions of
// one size; every read must see the latest one.
TEST_F(PreferencesTest, ReadsFollowEveryVersionAnotherWriterLeaves) {
  PS::SetValue("n", Value(-1), domain_);
  for (int i = 0; i < 50; ++i) {
    std::string error;
    {
      std::optional<PreferenceFileLock> lock = PreferenceFileLock::Acquire(path_, &error);
      ASSERT_TRUE(lock) << error;
      FileStamp written;
      ASSERT_TRUE(ReplacePreferenceFile(path_, Value(MakeDictionary({{"n", i % 10}})),
                                        ReadPreferenceFile(path_).stamp, &written, &error))
          << error;
    }
    ASSERT_EQ(Value(i % 10), PS::CopyValue("n", domain_)) << i;
  }
}

TEST_F(PreferencesTest, TwoProcessesSeeEachOthersWrites) {
  PS::SetValue("parent", Value("from parent"), domain_);
  EXPECT_EQ("from parent\n", test::RunHelper("preferences_helper", {"read", domain_, "parent"}).output);

  test::HelperRun run =
      test::RunHelper("preferences_helper", {"write", domain_, "child", "from child"});
  ASSERT_EQ(0, run.exitCode) << run.output;
  ASSERT_TRUE(PS::Synchronize(domain_));
  EXPECT_EQ(Value("from child"), PS::CopyValue("child", domain_));
  EXPECT_EQ(Value("from parent"), PS::CopyValue("parent", domain_));  // merged, not clobbered

  run = test::RunHelper("preferences_helper", {"write", domain_, "parent", "changed"});
  ASSERT_EQ(0, run.exitCode) << run.output;
  ASSERT_TRUE(PS::Synchronize(domain_));
  EXPECT_EQ(Value("changed"), PS::CopyValue("parent", domain_));
}

TEST_F(PreferencesTest, DamagedFileReadsAsEmptyWithOneLogLinePerVersion) {
  setKXLogLevel(3);
  PS::SetValue("k", Value(1), domain_);
  const std::string needle = path_ + "\" is damaged";
  std::ofstream(path_, std::ios::trunc) << "garbage";
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(PS::CopyAll(domain_).empty());
    EXPECT_TRUE(PS::Synchronize(domain_));
  }
  EXPECT_EQ(1, CountLogLines(needle));

  std::ofstream(path_, std::ios::trunc) << "other garbage";
  EXPECT_TRUE(PS::CopyValue("k", domain_).isNil());
  EXPECT_EQ(2, CountLogLines(needle));

  PS::SetValue("k", Value(2), domain_);  // replaces the damaged version
  EXPECT_EQ(Value(2), PS::CopyValue("k", domain_));
  EXPECT_EQ(2, CountLogLines(needle));
  std::stringstream aside;
  aside << std::ifstream(path_ + ".damaged").rdbuf();
  EXPECT_EQ("other garbage", aside.str());
}

TEST_F(PreferencesTest, AFailedWriteStaysPendingAndIsRetried) {
  setKXLogLevel(3);
  fs::create_directories(path_);  // a directory where the file belongs
  PS::SetValue("k", Value("v"), domain_);
  EXPECT_EQ(Value("v"), PS::CopyValue("k", domain_));
  EXPECT_FALSE(PS::Synchronize(domain_));
  EXPECT_LE(1, CountLogLines("Could not write preferences \"" + path_));

  fs::remove(path_);
  EXPECT_TRUE(PS::Synchronize(domain_));
  const PreferenceFileContents onDisk = ReadPreferenceFile(path_);
  ASSERT_EQ(PreferenceFileContents::State::Valid, onDisk.state);
  EXPECT_EQ(Value("v"), onDisk.values->at("k"));

  // A file where the store's directory belongs makes every write fail.
  const std::string blocker = test::TestRoot() + "/blocker";
  std::ofstream(blocker) << "x";
  const test::HelperRun run = test::RunHelper("preferences_helper", {"write", domain_, "k", "v"},
                                              {{"KX_PREFERENCES_DIR", blocker + "/prefs"}});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ("failed\n", run.output);
}

TEST_F(PreferencesTest, KilledWriterLeavesACompleteVersion) {
  // Large enough that writing, flushing and renaming take a while, so the
  // kills land at every stage of a write.
  constexpr size_t kBlob = 60 * 1024;
  std::mt19937 random(std::random_device{}());
  int64_t lastVersion = 0;
  for (int round = 0; round < 12; ++round) {
    {
      test::HelperProcess writer("preferences_helper",
                                 {"churn", domain_, std::to_string(kBlob)});
      ASSERT_EQ("writing", writer.ReadLine().value_or("(no output)"));
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
      writer.Kill();
      writer.Wait();
    }
    const PreferenceFileContents contents = ReadPreferenceFile(path_);
    ASSERT_EQ(PreferenceFileContents::State::Valid, contents.state) << contents.problem;
    const Value record = contents.values->at("record");
    ASSERT_NE(nullptr, record["version"].number());
    const int64_t version = record["version"].number()->int64Value();
    ASSERT_NE(nullptr, record["blob"].data());
    EXPECT_EQ(Value::Bytes(kBlob, static_cast<uint8_t>(version % 256)), *record["blob"].data());
    EXPECT_GT(version, lastVersion);
    lastVersion = version;
  }
}

TEST_F(PreferencesTest, ConcurrentWritersInOneProcessKeepEveryKey) {
  constexpr int kThreads = 4, kKeys = 20;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) EXPECT_LE(PS::CopyAll(domain_).size(), size_t{kThreads * kKeys});
  });
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (int k = 0; k < kKeys; ++k) {
        PS::SetValue("t" + std::to_string(t) + "-" + std::to_string(k), Value(k), domain_);
      }
    });
  }
  for (std::thread& w : writers) w.join();
  done = true;
  reader.join();
  EXPECT_EQ(size_t{kThreads * kKeys}, PS::CopyAll(domain_).size());
  EXPECT_EQ(size_t{kThreads * kKeys}, ReadPreferenceFile(path_).values->size());
}

}  // namespace
}  // namespace kx
