#include "searchd/query_request.h"

#include <gtest/gtest.h>

namespace kx::searchd {
namespace {

Dictionary Info(std::string text) {
  return MakeDictionary({{"QID", Number::UInt32(7)}, {"QS", std::move(text)}});
}

TEST(QueryRequestTest, BoundsRefuseOnlyBeyondTheLimit) {
  auto refusal = [](Dictionary info) { return ReadQueryRequest(Value(std::move(info)))->refusal; };
  EXPECT_EQ(refusal(Info(std::string(kMaxQueryTextBytes, 'a'))), "");
  EXPECT_EQ(refusal(Info(std::string(kMaxQueryTextBytes + 1, 'a'))), "text of 1025 bytes");

  for (size_t count : {kMaxQueryDomains, kMaxQueryDomains + 1}) {
    Dictionary info = Info("a");
    info["DA"] = Array(count, Value(Number::UInt32(4)));
    EXPECT_EQ(refusal(info).empty(), count == kMaxQueryDomains) << count;
  }
  Dictionary bundles = Info("a");
  bundles["BA"] = Array(kMaxExcludedBundles + 1, Value("b"));
  EXPECT_EQ(refusal(bundles), "1025 excluded bundles");

  // A refused request keeps its id (so it can be answered) and nothing else.
  const std::optional<QueryRequest> refused = ReadQueryRequest(Value(Info(std::string(5000, 'a'))));
  EXPECT_EQ(refused->queryID, 7u);
  EXPECT_TRUE(refused->text.empty());
}

TEST(QueryRequestTest, OverlongNamesAreIgnoredNotRefused) {
  Dictionary info = Info("fil");
  info["KL"] = std::string(kMaxNameBytes + 1, 'x');
  info["BA"] = Array{Value(std::string(kMaxNameBytes + 1, 'b')), Value("org.kxsample.Editor")};
  const std::optional<QueryRequest> request = ReadQueryRequest(Value(info));
  EXPECT_EQ(request->refusal, "");
  EXPECT_EQ(request->language, "");
  EXPECT_EQ(request->excludedBundles, std::set<std::string>{"org.kxsample.Editor"});
}

}  // namespace
}  // namespace kx::searchd
