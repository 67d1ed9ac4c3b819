#include "agent/section_merge.h"

#include <gtest/gtest.h>

#include "agent/agent_testing.h"
#include "agent/section_builder_testing.h"

namespace kx {
namespace {

using test::Describe;
using test::MakeResult;
using test::MakeSection;

TEST(SectionMergeTest, OneRowPerDisplayIdentifierIgnoringCase) {
  SectionList working;
  auto first = MakeSection(4, {"a", "b"});
  first->setDisplayIdentifier("com.Example.App");
  auto second = MakeSection(4, {"b", "c", "c2"});
  second->setDisplayIdentifier("COM.EXAMPLE.APP");
  auto empty = MakeSection(5, {});
  AppendAndMergeSections(working, {first, empty, second});
  EXPECT_EQ(Describe(working), "4:a,b,c,c2");
  // The kept section was replaced by a copy; the published one is intact.
  EXPECT_EQ(Describe({first}), "4:a,b");

  // A batch whose sections are all empty leaves the list as it was.
  const SectionList before = working;
  AppendAndMergeSections(working, {MakeSection(6, {})});
  EXPECT_EQ(working, before);

  // From the third section of one identifier on, a newcomer is dropped once
  // the second one changed the kept row.
  auto third = MakeSection(4, {"d"});
  third->setDisplayIdentifier("com.example.app");
  SectionList fresh;
  AppendAndMergeSections(fresh, {first, second, third});
  EXPECT_EQ(Describe(fresh), "4:a,b,c,c2");
}

TEST(SectionMergeTest, TopHitsTitlesOfTheSameApplicationAreNotRepeated) {
  auto topHits = MakeSection(0, {});
  topHits->addResults(MakeResult("shown", "com.mail"));
  topHits->addResults(MakeResult("other", "com.notes"));
  auto mail = MakeSection(3, {});
  mail->setDisplayIdentifier("mail");
  mail->addResults(MakeResult("m1", "com.mail"));
  auto more = MakeSection(3, {});
  more->setDisplayIdentifier("MAIL");
  more->addResults(MakeResult("shown", "com.mail"));
  more->addResults(MakeResult("other", "com.mail"));
  more->addResults(MakeResult(std::nullopt, "com.mail"));
  SectionList working;
  AppendAndMergeSections(working, {topHits, mail, more});
  EXPECT_EQ(Describe(working), "0:shown,other 3:m1,other");

  // A server section kept first takes everything, without the filter.
  auto server = MakeSection(16, {"s1"});
  server->setDisplayIdentifier("web");
  auto serverMore = MakeSection(16, {"shown", "s1"});
  serverMore->setDisplayIdentifier("web");
  for (const auto& r : serverMore->results()) r->setBundleID("com.mail");
  SectionList withServer;
  AppendAndMergeSections(withServer, {topHits, server, serverMore});
  EXPECT_EQ(Describe(withServer), "0:shown,other 16:s1,shown");
}

TEST(SectionMergeTest, AMapSectionGivesWayToTheOtherSource) {
  auto maps = MakeSection(18, {});
  maps->setDisplayIdentifier("place");
  maps->setCategory("maps-category");
  maps->addResults(MakeResult("Cafe", "com.orvex.maps"));
  maps->addResults(MakeResult("Bakery", "com.orvex.maps"));
  auto server = MakeSection(16, {});
  server->setDisplayIdentifier("PLACE");
  server->setCategory("server-category");
  server->addResults(MakeResult("Bakery", "com.server"));
  server->addResults(MakeResult("Museum", "com.server"));
  SectionList working;
  AppendAndMergeSections(working, {maps, server});
  ASSERT_EQ(working.size(), 1u);
  EXPECT_EQ(Describe(working), "16:Bakery,Museum,Cafe");
  EXPECT_EQ(working[0]->displayIdentifier(), "PLACE");
  EXPECT_EQ(working[0]->category(), "server-category");
}

TEST(SectionMergeTest, FlagsKeepRowsApartAndDriveTheCleanUp) {
  auto kept = MakeSection(4, {"a"});
  kept->setDisplayIdentifier("app");
  kept->setFlags(kSectionFlagKeepSeparate);
  auto later = MakeSection(4, {"b"});
  later->setDisplayIdentifier("app");
  auto lasting = MakeSection(5, {"c"});
  lasting->setFlags(kSectionFlagKeepSeparate | kSectionFlagNotAResult);
  SectionList working;
  AppendAndMergeSections(working, {kept, later, lasting});
  EXPECT_EQ(Describe(working), "4:a 4:b 5:c");

  // A new batch removes the first domain-1 section before merging.
  SectionList withOther = {MakeSection(1, {"thru"}), MakeSection(1, {"second"})};
  AppendAndMergeSections(withOther, {MakeSection(7, {"x"})});
  EXPECT_EQ(Describe(withOther), "1:second 7:x");

  EXPECT_TRUE(CleanupObsoleteSections(working));
  EXPECT_EQ(Describe(working), "4:b 5:c");
  EXPECT_FALSE(CleanupObsoleteSections(working));
}

TEST(SectionMergeTest, ReadSide) {
  auto thru = MakeSection(1, {"web"});
  thru->setFlags(kSectionFlagNotAResult);
  EXPECT_FALSE(ListHasResults({}));
  EXPECT_FALSE(ListHasResults({thru}));
  auto contacts = MakeSection(2, {"x"});
  auto topLike = MakeSection(9, {"y"});
  topLike->setFlags(kSectionFlagCountsAsTopHits);
  auto topHits = MakeSection(0, {"z"});
  const SectionList list = {contacts, topLike, topHits, MakeSection(2, {"w"})};
  EXPECT_TRUE(ListHasResults(list));
  EXPECT_EQ(IndexesOfCompatibleSection(list, *contacts), (std::vector<size_t>{0, 3}));
  EXPECT_EQ(IndexesOfCompatibleSection(list, *topLike), (std::vector<size_t>{1, 2}));
}

}  // namespace
}  // namespace kx
