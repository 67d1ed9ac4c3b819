#include "agent/result_dedupe.h"

#include <gtest/gtest.h>

#include "agent/agent_testing.h"
#include "agent/section_builder_testing.h"
#include "kx/KXDomainManager.h"

namespace kx {
namespace {

using test::Describe;
using test::MakeResult;
using test::MakeSection;

std::shared_ptr<KXSearchResult> ServerResult(const char* title, const char* url,
                                             std::optional<const char*> header = std::nullopt) {
  auto result = MakeResult(title, "com.server");
  if (url) result->setUrl(url);
  result->setSearchResultDomain(16);
  result->setValue(Value(std::string("fbr-") + title), "fbr");
  if (header) result->setValue(Value(*header), "section_header");
  return result;
}

TEST(ResultDedupeTest, StrippedURL) {
  EXPECT_EQ(StrippedURL("https://www.example.org/"), "example.org");
  EXPECT_EQ(StrippedURL("http://example.org"), "example.org");
  EXPECT_EQ(StrippedURL("http://www.example.org/a/"), "example.org/a");
  EXPECT_EQ(StrippedURL("HTTPS://www.example.org/"), "HTTPS://www.example.org");
  EXPECT_EQ(StrippedURL("//x//"), "x");
}

TEST(ResultDedupeTest, ServerResultsShownOnDeviceAreHiddenAndRecorded) {
  auto bookmarks = MakeSection(11, {});
  auto bookmark = MakeResult("Example", "com.browser");
  bookmark->setUrl("https://www.example.org/");
  bookmark->setSearchResultDomain(11);
  bookmarks->addResults(bookmark);
  // An on-device copy of a server result: never hides another server result.
  auto serverCopy = MakeResult("Copy", "com.server");
  serverCopy->setUrl("https://same.org");
  serverCopy->setSearchResultDomain(16);
  bookmarks->addResults(serverCopy);
  auto store = MakeResult("App", "com.store");
  store->setValue(Value("123"), "adam_id");
  store->setSearchResultDomain(4);
  bookmarks->addResults(store);

  auto server = MakeSection(16, {});
  server->addResults(ServerResult("dup", "http://example.org"));
  server->addResults(ServerResult("same1", "https://same.org", "H"));
  server->addResults(ServerResult("same2", "https://same.org", "H"));
  auto bought = ServerResult("bought", nullptr);
  bought->setValue(Value("123"), "adam_id");
  server->addResults(bought);
  server->addResults(ServerResult("late", "example.org"));

  SectionList incoming = {server, MakeSection(3, {})};
  HandleOptionsForNewSections({bookmarks}, incoming);
  ASSERT_EQ(incoming.size(), 1u);
  EXPECT_EQ(Describe(incoming), "16:same1,same2");
  // Records appended before the group was made travel with it; later ones
  // stay on the original section only.
  const Array* hidden = incoming[0]->hiddenExtResultsIfPresent();
  ASSERT_NE(hidden, nullptr);
  ASSERT_EQ(hidden->size(), 1u);
  auto manager = KXDomainManager::defaultManager();
  const std::string local =
      "local:" + std::string(manager->getBundleIdForDomainNumber(11).value_or("(null)"));
  EXPECT_EQ((*hidden)[0], Value(MakeDictionary({{"fbr", "fbr-dup"}, {"type", "dup"}, {"id", local}})));
  EXPECT_EQ(server->hiddenExtResultsIfPresent()->size(), 3u);
}

TEST(ResultDedupeTest, ServerSectionsAreSplitByHeader) {
  auto web = MakeSection(17, {});
  web->addResults(ServerResult("a1", "a1.org", "A"));
  web->addResults(ServerResult("b1", "b1.org", "B"));
  web->addResults(ServerResult("a2", "a2.org", "A"));
  auto bing = MakeSection(17, {});
  auto bingResult = ServerResult("w1", "w1.org", "W");
  bingResult->setValue(Value("bing"), "type");
  bingResult->setValue(
      Array{Value(MakeDictionary({{"type", "row"}, {"key", "More"}, {"url", "https://w/all"}}))},
      "card_sections");
  bing->addResults(bingResult);
  // Results without a header each open a group of their own, filed under
  // their bundle: a later one of the same bundle takes the earlier's place.
  auto loose = MakeSection(16, {});
  loose->addResults(MakeResult("x", "com.x"));
  loose->addResults(MakeResult("y", "com.y"));
  loose->addResults(MakeResult("x2", "com.x"));
  SectionList incoming = {web, MakeSection(16, {}), bing, loose};
  HandleOptionsForNewSections({}, incoming);
  EXPECT_EQ(Describe(incoming), "16:a1,a2 16:b1 16: 17:w1,More 16:x2 16:y");
  EXPECT_EQ(incoming[3]->resultsAtIndex(1)->url(), "https://w/all");
}

TEST(ResultDedupeTest, MapsCategoryGetsItsMoreRow) {
  auto maps = MakeSection(16, {});
  auto place = ServerResult("Cafes", "maps.org/cafes", "Places");
  place->setValue(Value("maps"), "type");
  place->setValue(Value("category"), "maps_result_type");
  place->setValue(Value("More places"), "more");
  place->setValue(Value("https://maps.example/more"), "more_url");
  maps->addResults(place);
  SectionList incoming = {maps};
  HandleOptionsForNewSections({}, incoming);
  ASSERT_EQ(Describe(incoming), "16:Cafes,More places");
  EXPECT_EQ(incoming[0]->resultsAtIndex(1)->url(), "https://maps.example/more");
  EXPECT_TRUE(SectionNeedsMoreMapsOption(*incoming[0]));
  EXPECT_TRUE(HasVantleNews(incoming));
  EXPECT_FALSE(HasVantleNews({MakeSection(4, {"a"})}));
}

}  // namespace
}  // namespace kx
