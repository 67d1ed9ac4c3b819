#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "ipc/dpq_testing.h"
#include "kx/KXDaemonConnection.h"
#include "platform/process/child_process.h"
#include "tests/support/test_environment.h"
#include "tools/kx-search/options.h"
#include "tools/kx-search/section_output.h"

extern char** environ;

namespace kx::test {
namespace {

using cli::Options;
using cli::ParseOptions;
using cli::UsageError;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::variant<Options, UsageError> Parse(std::vector<const char*> args) {
  args.insert(args.begin(), "kx-search");
  return ParseOptions(static_cast<int>(args.size()), args.data());
}

TEST(KxSearchOptionsTest, ReadsEveryFlagAndRejectsWhatItCannotUse) {
  auto parsed = Parse({"--delay", "40", "--json", "--open", "2", "--no-launch", "--language",
                       "de_DE", "grace hopper"});
  ASSERT_TRUE(std::holds_alternative<Options>(parsed));
  const Options& o = std::get<Options>(parsed);
  EXPECT_EQ(o.query, "grace hopper");
  EXPECT_EQ(o.delay.count(), 40);
  EXPECT_TRUE(o.json);
  EXPECT_EQ(o.open, 2u);
  EXPECT_FALSE(o.launch);
  EXPECT_EQ(o.language, "de_DE");
  // A query that looks like a flag comes after "--".
  EXPECT_EQ(std::get<Options>(Parse({"--", "-5"})).query, "-5");
  EXPECT_TRUE(std::get<Options>(Parse({"--zkw"})).zkw);

  for (auto bad : std::vector<std::vector<const char*>>{
           {"--frobnicate", "x"}, {"--delay"}, {"--delay", "soon", "x"}, {"--delay", "-1", "x"},
           {"--open", "0", "x"}, {"one", "two"}, {}, {"--zkw", "x"}}) {
    auto result = Parse(bad);
    EXPECT_TRUE(std::holds_alternative<UsageError>(result)) << ::testing::PrintToString(bad);
  }
}

std::shared_ptr<KXSearchResultSection> Section(uint32_t domain,
                                               std::vector<std::pair<std::string, std::string>> rows) {
  auto section = std::make_shared<KXSearchResultSection>();
  section->setDomain(domain);
  for (const auto& [title, subtitle] : rows) {
    auto result = std::make_shared<KXSearchResult>();
    result->setTitle(title);
    if (!subtitle.empty()) result->setSubtitle(subtitle);
    section->addResults(result);
  }
  return section;
}

TEST(KxSearchOutputTest, ListingNumbersAcrossSectionsAndAlignsSubtitles) {
  const cli::SectionList sections = {Section(4, {{"Files", "File Manager"}, {"Firefly", ""}}),
                                     Section(2, {}),
                                     Section(5, {{"Trip to Kyoto", "Notes"}})};
  const std::string plain = cli::Listing(sections, false);
  EXPECT_EQ(plain.find('\x1b'), std::string::npos);
  const std::string apps = cli::SectionTitle(*sections[0]);
  EXPECT_FALSE(apps.empty());
  EXPECT_EQ(plain, apps + "\n" +
                       "  1  Files          File Manager\n"
                       "  2  Firefly\n" +
                       cli::SectionTitle(*sections[2]) + "\n" +
                       "  3  Trip to Kyoto  Notes\n");
  EXPECT_THAT(cli::Listing(sections, true), HasSubstr("\x1b[1m" + apps));
  EXPECT_EQ(cli::Listing({}, false), "no results\n");
}

TEST(KxSearchOutputTest, UpdateJsonLeavesOutAbsentKeys) {
  const nlohmann::json j =
      cli::UpdateJson("fi", 2, "updated", {Section(4, {{"Firefly", ""}})});
  EXPECT_EQ(j["text"], "fi");
  EXPECT_EQ(j["seq"], 2);
  EXPECT_EQ(j["kind"], "updated");
  ASSERT_EQ(j["sections"].size(), 1u);
  const auto& s = j["sections"][0];
  EXPECT_EQ(s["domain"], 4);
  EXPECT_THAT(s["key"].get<std::string>(), StartsWith("DOMAIN_"));
  EXPECT_EQ(s["results"][0], nlohmann::json({{"title", "Firefly"}}));
}

// --- End to end: the built tool against kx-searchd under kx-launch ------------

std::string Built(const std::string& name) {
  return std::string(KX_BUILD_DIR) + "/tools/" + name + "/" + name;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
  std::chrono::milliseconds took{0};
};

// Runs kx-search with `args`, its output captured in files.
RunResult RunTool(const std::vector<std::string>& args) {
  static int run = 0;
  const std::string base = TestRoot() + "/run" + std::to_string(++run);
  std::string command = "exec '" + Built("kx-search") + "'";
  for (const std::string& a : args) command += " '" + a + "'";
  command += " >'" + base + ".out' 2>'" + base + ".err'";
  const auto start = std::chrono::steady_clock::now();
  auto child = ChildProcess::Spawn("/bin/sh", {"-c", command});
  EXPECT_TRUE(child.has_value());
  RunResult r;
  r.status = child->wait(std::chrono::seconds(20)).value_or(-1);
  r.took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                  start);
  r.out = Slurp(base + ".out");
  r.err = Slurp(base + ".err");
  return r;
}

std::vector<nlohmann::json> JsonLines(const std::string& text) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

// The daemon over a private copy of the sample data, serving the name the
// tool's shared connection uses, in this test's own service directory.
class KxSearchEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string data = TestRoot() + "/data";
    std::filesystem::copy(KX_EXAMPLES_DATA, data, std::filesystem::copy_options::recursive);
    const std::string name(KXDaemonConnection::kDefaultDaemonName);
    // Where the daemon keeps its feedback log.
    setenv("XDG_STATE_HOME", (TestRoot() + "/state").c_str(), 1);
    launcher_ = ChildProcess::Spawn(Built("kx-launch"),
                                    {"--name", name, "--", Built("kx-searchd"), "--service", name,
                                     "--data-root", data, "--index", TestRoot() + "/index"});
    ASSERT_TRUE(launcher_.has_value());
    WaitForServiceSocket(name);
  }
  std::optional<ChildProcess> launcher_;
};

TEST_F(KxSearchEndToEndTest, JsonUpdatesFollowTheTypedPrefixes) {
  const RunResult r = RunTool({"--json", "fire"});
  ASSERT_EQ(r.status, 0) << r.err;
  const auto updates = JsonLines(r.out);
  ASSERT_FALSE(updates.empty());
  int64_t seq = 0;
  for (const auto& u : updates) {
    EXPECT_TRUE(std::string("fire").starts_with(u["text"].get<std::string>())) << u;
    EXPECT_GE(u["seq"].get<int64_t>(), seq) << u;
    seq = u["seq"];
  }
  const auto& last = updates.back();
  EXPECT_EQ(last["text"], "fire");
  const auto& sections = last["sections"];
  auto apps = std::find_if(sections.begin(), sections.end(),
                           [](const auto& s) { return s["domain"] == 4; });
  ASSERT_NE(apps, sections.end()) << last;
  EXPECT_EQ((*apps)["results"][0]["title"], "Firefly");
  EXPECT_FALSE((*apps)["title"].get<std::string>().empty());
}

// The first section of the last update of `text`.
nlohmann::json FirstSection(const std::string& text) {
  const RunResult r = RunTool({"--json", text});
  EXPECT_EQ(r.status, 0) << r.err;
  const auto updates = JsonLines(r.out);
  if (updates.empty() || updates.back()["sections"].empty()) return nlohmann::json::object();
  return updates.back()["sections"][0];
}

TEST_F(KxSearchEndToEndTest, ListingShowsSectionsAndOpenRaisesTheEngagedResult) {
  // Keys far enough apart that each prefix gets its answer even on a slow
  // (sanitizer) build.
  const RunResult listing = RunTool({"--delay", "400", "cal"});
  ASSERT_EQ(listing.status, 0) << listing.err;
  // A summary line per keystroke's update, then the numbered listing.
  EXPECT_THAT(listing.out, HasSubstr("\"ca\":"));
  EXPECT_THAT(listing.out, HasSubstr("\n  2  "));

  const nlohmann::json before = FirstSection("cal");
  ASSERT_GE(before["results"].size(), 2u) << before;
  const std::string second = before["results"][1]["title"];
  const std::string identifier = std::to_string(before["results"][1]["identifier"].get<uint64_t>());

  const RunResult open = RunTool({"--open", "2", "--no-launch", "cal"});
  ASSERT_EQ(open.status, 0) << open.err;
  EXPECT_THAT(open.out, HasSubstr("engaged 2: " + second + "\n"));
  // The tool returns once the daemon has the record, so the log holds it.
  bool logged = false;
  for (const auto& line :
       JsonLines(Slurp(TestRoot() + "/state/kxsearch/feedback.jsonl"))) {
    logged |= line["class"] == "KXFeedbackEngagement" && line["identifier"] == identifier &&
              line["server"]["input"] == "cal";
  }
  EXPECT_TRUE(logged);
  EXPECT_EQ(FirstSection("cal")["results"][0]["title"], second);

  const RunResult beyond = RunTool({"--open", "999", "--no-launch", "cal"});
  EXPECT_NE(beyond.status, 0);
  EXPECT_THAT(beyond.err, HasSubstr("no result 999"));
}

// kx-search --interactive on a pseudo-terminal: what it draws, and the
// keys typed into it.
class Terminal {
 public:
  explicit Terminal(const std::vector<std::string>& args) {
    int slave = -1;
    EXPECT_EQ(openpty(&master_, &slave, nullptr, nullptr, nullptr), 0);
    // Only this side holds the master, so closing it hangs the terminal up.
    fcntl(master_, F_SETFD, FD_CLOEXEC);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd : {0, 1, 2}) posix_spawn_file_actions_adddup2(&actions, slave, fd);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    std::vector<std::string> argv = {Built("kx-search")};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (auto& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&pid_, cargv[0], &actions, &attributes, cargv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(slave);
  }
  ~Terminal() {
    closeMaster();
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  void type(const std::string& keys) { EXPECT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size())); }
  // Reads what the tool draws until `text` appears after everything seen so
  // far was consumed up to the previous match.
  bool waitFor(const std::string& text) {
    for (auto deadline = std::chrono::steady_clock::now() + kTimeout;
         std::chrono::steady_clock::now() < deadline;) {
      const size_t at = seen_.find(text, consumed_);
      if (at != std::string::npos) {
        consumed_ = at + text.size();
        return true;
      }
      pollfd p = {master_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      char buffer[4096];
      const ssize_t n = read(master_, buffer, sizeof buffer);
      if (n <= 0) return false;
      seen_.append(buffer, static_cast<size_t>(n));
    }
    return false;
  }
  void closeMaster() {
    if (master_ >= 0) close(master_);
    master_ = -1;
  }
  std::optional<int> exitStatus() {
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
         std::chrono::steady_clock::now() < deadline;) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return std::nullopt;
  }
  const std::string& seen() const { return seen_; }

 private:
  int master_ = -1;
  pid_t pid_ = -1;
  std::string seen_;
  size_t consumed_ = 0;
};

TEST_F(KxSearchEndToEndTest, InteractiveRedrawsAsYouTypeAndEnterEngagesTheChosenRow) {
  Terminal t({"--interactive", "--no-launch"});
  ASSERT_TRUE(t.waitFor("Search: "));
  t.type("cal");
  ASSERT_TRUE(t.waitFor("Calendar")) << t.seen();
  // Down to the second row, back up, down again: the second row engages.
  t.type("\x1b[B\x1b[A\x1b[B");
  ASSERT_TRUE(t.waitFor(">")) << t.seen();
  const std::string second = FirstSection("cal")["results"][1]["title"];
  t.type("\r");
  EXPECT_TRUE(t.waitFor("engaged 2: " + second)) << t.seen();
  EXPECT_EQ(t.exitStatus(), 0);

  // A terminal that goes away ends the tool with an error.
  Terminal closing({"--interactive"});
  ASSERT_TRUE(closing.waitFor("Search: "));
  closing.closeMaster();
  EXPECT_EQ(closing.exitStatus(), 1);
}

TEST(KxSearchNoDaemonTest, FailsFastWithOneLine) {
  for (const auto& args : std::vector<std::vector<std::string>>{{"fire"}, {"--bogus", "fire"}}) {
    const RunResult r = RunTool(args);
    EXPECT_NE(r.status, 0);
    EXPECT_LT(r.took, std::chrono::seconds(3));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_TRUE(r.out.empty());
  }
}

}  // namespace
}  // namespace kx::test
