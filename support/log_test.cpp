// GCC 12 with the sanitizers' instrumentation at -O1 reports std::function
// members inside libstdc++'s own regex automaton as maybe-uninitialized; the
// warning is about inlined library code, not ours. It must be silenced
// before the first header brings in <functional>.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include "kx/log_init.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/prefs/preferences.h"
#include "platform/process/process_info.h"
#include "support/log_file.h"

// Every test runs in a process of its own with a private HOME, so the
// process-wide thresholds and the once-only open start fresh in each.
namespace kx {
namespace {

namespace fs = std::filesystem;

const std::regex kTimestamp(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3})");
constexpr size_t kTimestampLength = 23;

std::string LivePath() { return logFilePathWithNumber(LogDirectoryPath(), 0); }

std::vector<std::string> LogLines() {
  std::ifstream in(LivePath(), std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// What follows the timestamp in a line written by this thread.
std::string LineTail(const std::string& rest) {
  return Format("|%@|%ld|%@| %@", ProcessName(), static_cast<long>(getpid()),
                CurrentThreadDescription(), rest);
}

void ExpectLine(const std::string& line, const std::string& rest) {
  ASSERT_GE(line.size(), kTimestampLength) << line;
  EXPECT_TRUE(std::regex_match(line.substr(0, kTimestampLength), kTimestamp)) << line;
  EXPECT_EQ(line.substr(kTimestampLength), LineTail(rest));
}

bool LogDirectoryTreeExists() { return fs::exists(HomeDirectory() + "/Library"); }

TEST(Log, BelowDebugTheFileLineCarriesNoSourcePosition) {
  // Local time, not UTC: a zone far from UTC makes the difference visible.
  setenv("TZ", "Asia/Kolkata", 1);
  tzset();
  setKXLogLevel(6);
  const time_t before = time(nullptr);
  KXLOG(6, "hello %d %@", 42, std::string("world"));
  KXLOG(7, "too detailed");
  const time_t after = time(nullptr);

  const std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 1u);
  ExpectLine(lines[0], "hello 42 world");

  std::tm parsed{};
  ASSERT_NE(strptime(lines[0].c_str(), "%Y-%m-%d %H:%M:%S", &parsed), nullptr);
  parsed.tm_isdst = -1;
  const time_t stamped = mktime(&parsed);
  EXPECT_GE(stamped, before);
  EXPECT_LE(stamped, after);
}

TEST(Log, AtDebugTheFileLineCarriesBaseNameAndLine) {
  setKXLogLevel(7);
  const int line = __LINE__ + 1;
  KXLOG(7, "traced %s", "here");
  _KXLog("plain.cpp", 12, 3, "no slash");
  _KXLog("/dir/", 5, 3, "nothing after the slash");

  const std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 3u);
  ExpectLine(lines[0], Format("log_test.cpp:%d traced here", line));
  ExpectLine(lines[1], "plain.cpp:12 no slash");
  ExpectLine(lines[2], ":5 nothing after the slash");
}

TEST(Log, ConsoleAndFileChooseTheirShapesIndependently) {
  setKXLogLevel(7);
  setKXLogOutputLevel(5);
  testing::internal::CaptureStderr();
  _KXLog("/src/a.cpp", 10, 5, "both %d", 1);
  _KXLog("/src/a.cpp", 11, 6, "file only");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "both 1\n");
  const std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 2u);
  ExpectLine(lines[0], "a.cpp:10 both 1");
  ExpectLine(lines[1], "a.cpp:11 file only");

  setKXLogLevel(3);
  setKXLogOutputLevel(7);
  testing::internal::CaptureStderr();
  _KXLog("/src/b.cpp", 20, 6, "console only");
  _KXLog("/src/b.cpp", 21, 3, "both again");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "b.cpp:20 console only\nb.cpp:21 both again\n");
  const std::vector<std::string> after = LogLines();
  ASSERT_EQ(after.size(), 3u);
  ExpectLine(after[2], "both again");
}

TEST(Log, WithoutALevelNothingIsWrittenAnywhere) {
  setKXLogOutputLevel(7);
  testing::internal::CaptureStderr();
  for (int level = 2; level <= 7; ++level) KXLOG(level, "guarded %d", level);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(gKXLogLevel.load(), 0);
  EXPECT_FALSE(LogDirectoryTreeExists());

  // Unguarded, a message reaches the console by its own threshold; the file
  // threshold, from the absent preference, stays 0.
  testing::internal::CaptureStderr();
  _KXLog("/src/c.cpp", 30, 3, "unguarded");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "c.cpp:30 unguarded\n");
  EXPECT_EQ(gKXLogLevel.load(), 0);
  EXPECT_FALSE(LogDirectoryTreeExists());
}

TEST(Log, InitReadsThePreferenceOnce) {
  UserDefaults::SetObject(Value(6), "KXLogLevel");
  KXLogInit();
  EXPECT_EQ(gKXLogLevel.load(), 6);
  UserDefaults::SetObject(Value(2), "KXLogLevel");
  KXLogInit();
  _KXLog(__FILE__, __LINE__, 6, "consults nothing more");
  EXPECT_EQ(gKXLogLevel.load(), 6);
}

TEST(Log, AnExplicitLevelWinsOverThePreference) {
  UserDefaults::SetObject(Value(7), "KXLogLevel");
  setKXLogLevel(2);
  KXLogInit();
  EXPECT_EQ(gKXLogLevel.load(), 2);
  _KXLog(__FILE__, __LINE__, 3, "above the explicit level");
  EXPECT_FALSE(LogDirectoryTreeExists());
}

TEST(Log, OpenFailureWarnsOncePerProcessAndKeepsTheConsole) {
  // A file where the log directory belongs makes every open fail, even as root.
  std::string directory = LogDirectoryPath();
  directory.pop_back();
  fs::create_directories(fs::path(directory).parent_path());
  std::ofstream(directory) << "in the way";

  setKXLogLevel(3);
  setKXLogOutputLevel(3);
  testing::internal::CaptureStderr();
  KXLOG(3, "first");
  KXLOG(3, "second");
  const std::string expected = Format(
      "first\nWarning: KXLog() couldn't open the log file %@: returned errno %d, \"%@\"\nsecond\n",
      LivePath(), ENOTDIR, std::generic_category().message(ENOTDIR));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

TEST(Log, OversizedFileIsRotatedBeforeTheFirstLine) {
  const std::string directory = LogDirectoryPath();
  fs::create_directories(directory);
  std::ofstream(LivePath()) << "old";
  fs::resize_file(LivePath(), kLogRotationSize + 1);

  setKXLogLevel(6);
  KXLOG(6, "fresh");
  EXPECT_EQ(fs::file_size(logFilePathWithNumber(directory, 1)), kLogRotationSize + 1);
  const std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 1u);
  ExpectLine(lines[0], "fresh");
}

class Chatty : public Object {
 public:
  std::string className() const override { return "Chatty"; }
  std::string description() const override {
    KXLOG(6, "inner");
    return "chatty";
  }
};

TEST(Log, ADescriptionThatLogsReentersWithoutDeadlock) {
  setKXLogLevel(6);
  setKXLogOutputLevel(6);
  testing::internal::CaptureStderr();
  KXLOG(6, "outer %@", std::make_shared<Chatty>());
  // Each sink formats the message itself, so the description runs twice.
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "inner\nouter chatty\ninner\n");
  const std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 3u);
  ExpectLine(lines[0], "inner");
  ExpectLine(lines[1], "inner");
  ExpectLine(lines[2], "outer chatty");
}

TEST(Log, ConcurrentThreadsWriteWholeLines) {
  setKXLogLevel(6);
  constexpr int kThreads = 4;
  constexpr int kLinesPerThread = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLinesPerThread; ++i)
        KXLOG(6, "payload %d-%d %s", t, i, std::string(static_cast<size_t>(i * 13 % 4000), 'x'));
    });
  }
  for (std::thread& thread : threads) thread.join();

  // std::regex recurses per character, so only the short head is matched.
  const std::regex head(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\|[^|]*\|\d+\|[^|]*)");
  std::set<std::pair<int, int>> seen;
  for (const std::string& line : LogLines()) {
    const size_t payload = line.find("| payload ");
    ASSERT_NE(payload, std::string::npos) << line.substr(0, 200);
    ASSERT_TRUE(std::regex_match(line.substr(0, payload), head)) << line.substr(0, 200);
    int t = -1, i = -1, consumed = 0;
    ASSERT_EQ(sscanf(line.c_str() + payload, "| payload %d-%d %n", &t, &i, &consumed), 2);
    const std::string_view xs = std::string_view(line).substr(payload + consumed);
    EXPECT_EQ(xs.size(), static_cast<size_t>(i * 13 % 4000));
    EXPECT_EQ(xs.find_first_not_of('x'), std::string_view::npos);
    EXPECT_TRUE(seen.emplace(t, i).second);
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLinesPerThread));
}

}  // namespace
}  // namespace kx
