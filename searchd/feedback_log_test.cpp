#include "searchd/feedback_log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "kx/KXFeedbackEngagement.h"
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "tests/support/test_environment.h"

namespace kx::searchd {
namespace {

std::vector<nlohmann::json> Lines(const std::string& path) {
  std::vector<nlohmann::json> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

TEST(FeedbackLogTest, EngagementLineNamesTheItemAndRotationKeepsOneOldFile) {
  KXSearchResult result;
  result.setIdentifier(42);
  result.setBundleID("org.kxsample.Files");
  result.setTitle("Files");
  KXSearchResultSection section;
  section.setDomain(4);
  auto engagement = KXFeedbackEngagement::feedbackForSearchResult(result, section);
  engagement->setFbq("session-7");
  engagement->setInput("fil");
  EXPECT_EQ(EngagedItem(*engagement), 42);

  const nlohmann::json line = FeedbackLine(*engagement, 0.0);
  EXPECT_EQ(line["class"], "KXFeedbackEngagement");
  EXPECT_EQ(line["fbq"], "session-7");
  EXPECT_EQ(line["domain"], 4);
  ASSERT_TRUE(line.contains("server"));
  EXPECT_EQ(line["server"]["input"], "fil");

  const std::string path = test::TestRoot() + "/state/kxsearch/feedback.jsonl";
  const size_t size = line.dump().size() + 1;
  FeedbackLog log(path, 3 * size);
  for (int i = 0; i < 4; ++i) log.append(line);
  EXPECT_EQ(Lines(path + ".1").size(), 3u);
  EXPECT_EQ(Lines(path).size(), 1u);
  for (int i = 0; i < 3; ++i) log.append(line);
  EXPECT_EQ(Lines(path + ".1").size(), 3u);
  EXPECT_EQ(Lines(path).size(), 1u);

  // Records that engage nothing indexed.
  engagement->setIdentifier("not a number");
  EXPECT_FALSE(EngagedItem(*engagement));
  auto plain = KXFeedback::feedbackForSearchResult(result, section);
  EXPECT_FALSE(EngagedItem(*plain));
}

}  // namespace
}  // namespace kx::searchd
