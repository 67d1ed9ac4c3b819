#include "transport/KXSearchResultSerializer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "kx/assert.h"
#include "kx/exception.h"
#include "kx/log.h"
#include "platform/shared_memory.h"
#include "transport/KXSearchResultDeserializer.h"
#include "transport/foreign_result.h"
#include "transport/result_stream_testing.h"

namespace {

using kx::test::MakeResult;
using kx::test::MakeSection;
using kx::test::ReadAllSections;
using kx::test::Titles;
using TitleList = std::vector<std::optional<std::string>>;

std::vector<std::shared_ptr<KXSearchResultSection>> SerializeAndRead(
    KXSearchResultSerializer& serializer) {
  serializer.serialize();
  EXPECT_TRUE(serializer.completed());
  auto reader = KXSearchResultDeserializer::initWithSerializer(serializer);
  return ReadAllSections(*reader);
}

TEST(KXSearchResultSerializerTest, PlainInitIsRefused) {
  try {
    KXSearchResultSerializer::init();
    FAIL() << "init returned";
  } catch (const kx::InternalInconsistencyException& e) {
    EXPECT_EQ(e.reason(), "should never call -init on KXSearchResultSerializer");
  }
}

TEST(KXSearchResultSerializerTest, SectionsOfOneDomainFoldIntoTheFirst) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0);
  auto first = MakeSection(3, {MakeResult("a", 1)});
  first->setIcon("first-icon");
  first->setCategory("first-category");
  first->setFlags(5);
  auto second = MakeSection(3, {MakeResult("b", 2), MakeResult("c", 3)});
  second->setIcon("second-icon");
  second->setScheme("second-scheme");
  second->setFlags(9);
  EXPECT_TRUE(serializer->appendSection(first));
  EXPECT_TRUE(serializer->appendSection(MakeSection(4, {MakeResult("x", 9)})));
  EXPECT_TRUE(serializer->appendSection(second));
  EXPECT_EQ(serializer->sectionCount(), 2u);

  auto sections = SerializeAndRead(*serializer);
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(sections[0]->domain(), 3u);
  EXPECT_EQ(sections[0]->icon(), "first-icon");
  EXPECT_EQ(sections[0]->category(), "first-category");
  EXPECT_FALSE(sections[0]->hasScheme());
  EXPECT_EQ(sections[0]->flags(), 5);
  EXPECT_EQ(Titles(*sections[0]), (TitleList{"a", "b", "c"}));
  EXPECT_EQ(sections[1]->domain(), 4u);
  EXPECT_EQ(Titles(*sections[1]), (TitleList{"x"}));
}

// Two results that the section's set treats as one: same identifier and url
// (same hash) and same external identifier and bundle (equal).
std::shared_ptr<KXSearchResult> Duplicate(std::string title, uint64_t identifier, int32_t flags,
                                          uint64_t score, bool withURL = true) {
  auto r = MakeResult(std::move(title), identifier);
  if (withURL) r->setUrl("kx://item/7");
  r->setExternalIdentifier("ext-7");
  r->setBundleID("com.orvex.mail");
  r->setFlags(flags);
  r->setScore(score);
  return r;
}

TEST(KXSearchResultSerializerTest, EquivalentDuplicateMergesItsScoreIntoAFlaggedResult) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  serializer->appendSection(MakeSection(2));
  serializer->appendResult(Duplicate("old", 7, 0x20, 0x1));
  serializer->appendResult(Duplicate("new", 7, 0, 0x4));
  // Without the flag a duplicate is dropped and the score stays.
  serializer->appendSection(MakeSection(3));
  serializer->appendResult(Duplicate("old", 7, 0, 0x1));
  serializer->appendResult(Duplicate("new", 7, 0, 0x4));
  // Equal but not equivalent (no identifier, no url): dropped, no merge.
  serializer->appendSection(MakeSection(5));
  serializer->appendResult(Duplicate("old", 0, 0x20, 0x1, false));
  serializer->appendResult(Duplicate("new", 0, 0, 0x4, false));

  auto sections = SerializeAndRead(*serializer);
  ASSERT_EQ(sections.size(), 3u);
  const uint64_t expected[] = {0x40000005, 0x1, 0x1};
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    ASSERT_EQ(Titles(*sections[i]), (TitleList{"old"}));
    EXPECT_EQ(sections[i]->resultsAtIndex(0)->score(), expected[i]);
  }
}

TEST(KXSearchResultSerializerTest, RegionIsPageRoundedSharedMemoryMadeOnce) {
  auto empty = KXSearchResultSerializer::initWithInitialCapacity(1 << 20);
  EXPECT_EQ(empty->byteVector(), nullptr);
  empty->serialize();
  EXPECT_TRUE(empty->completed());
  EXPECT_EQ(empty->byteVectorCount(), 0u);
  EXPECT_EQ(empty->byteVectorCapacity(), 8192u);
  EXPECT_TRUE(kx::SharedMemoryAllocator::Owns(empty->byteVector()));

  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0);
  auto section = MakeSection(2);
  for (uint64_t i = 1; i <= 300; ++i) section->addResults(MakeResult(std::string(40, 't'), i));
  serializer->appendSection(section);
  serializer->serialize();
  const uint8_t* region = serializer->byteVector();
  const uint32_t count = serializer->byteVectorCount();
  ASSERT_NE(region, nullptr);
  EXPECT_GT(count, 300u * 40);
  EXPECT_EQ(region[count - 1], 0x04);
  EXPECT_EQ(serializer->byteVectorCapacity() % kx::PageSize(), 0u);
  EXPECT_LT(serializer->byteVectorCapacity() - count, kx::PageSize());
  EXPECT_TRUE(kx::SharedMemoryAllocator::Owns(region));
  const std::vector<uint8_t> before(region, region + count);

  // Appending after completion does not reach the region, nor does a second
  // serialize.
  serializer->appendSection(MakeSection(9, {MakeResult("late", 1)}));
  {
    kx::ScopedAssertionRecorder recorder;
    serializer->serialize();
    EXPECT_EQ(recorder.texts(), std::vector<std::string>{"Should not serialize twice"});
  }
  EXPECT_EQ(serializer->byteVector(), region);
  EXPECT_EQ(serializer->byteVectorCount(), count);
  EXPECT_EQ(std::vector<uint8_t>(region, region + count), before);
  EXPECT_THROW(serializer->serialize(), kx::AssertionException);

  serializer.reset();
  EXPECT_FALSE(kx::SharedMemoryAllocator::Owns(region));
}

TEST(KXSearchResultSerializerTest, InProcRegionIsHeapMemory) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  serializer->appendSection(MakeSection(2, {MakeResult("a", 1)}));
  serializer->serialize();
  ASSERT_NE(serializer->byteVector(), nullptr);
  EXPECT_FALSE(kx::SharedMemoryAllocator::Owns(serializer->byteVector()));
  EXPECT_EQ(serializer->byteVectorCapacity(), kx::PageSize());
}

TEST(KXSearchResultSerializerTest, ForwardedStreamIsTakenAsItIs) {
  auto source = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  source->appendSection(MakeSection(2, {MakeResult("a", 1)}));
  source->appendSection(MakeSection(3, {MakeResult("b", 2)}));
  source->serialize();

  auto forwarder = KXSearchResultSerializer::initWithInitialCapacity(0);
  EXPECT_TRUE(forwarder->appendSerializer({source->byteVector(), source->byteVectorCount()}));
  EXPECT_EQ(forwarder->sectionCount(), 1u);
  EXPECT_FALSE(forwarder->completed());
  auto sections = SerializeAndRead(*forwarder);
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(Titles(*sections[1]), (TitleList{"b"}));

  auto emptyForward = KXSearchResultSerializer::initWithInitialCapacity(0);
  EXPECT_TRUE(emptyForward->appendSerializer({}));
  EXPECT_EQ(emptyForward->sectionCount(), 0u);
  EXPECT_EQ(emptyForward->byteVectorCapacity(), 8192u);
}

TEST(KXSearchResultSerializerTest, MisuseIsReportedAndLosesOnlyTheResult) {
  class NotAResult : public kx::Object {
    std::string className() const override { return "NotAResult"; }
  };
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  {
    kx::ScopedAssertionRecorder recorder;
    EXPECT_TRUE(serializer->appendResult(MakeResult("lost", 1)));
    serializer->appendSection(MakeSection(2));
    EXPECT_TRUE(serializer->appendResult(std::make_shared<NotAResult>()));
    EXPECT_EQ(recorder.texts(), (std::vector<std::string>{
                                    "Appending results without any sections",
                                    "Appending a result that isn't a result"}));
  }
  auto sections = SerializeAndRead(*serializer);
  ASSERT_EQ(sections.size(), 1u);
  EXPECT_EQ(sections[0]->resultsCount(), 0u);
}

TEST(KXSearchResultSerializerTest, RaisingAssertionReleasesTheLock) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  EXPECT_THROW(serializer->appendResult(MakeResult("lost", 1)), kx::AssertionException);
  auto other = std::async(std::launch::async,
                          [&] { return serializer->appendSection(MakeSection(2)); });
  ASSERT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(serializer->sectionCount(), 1u);
}

TEST(KXSearchResultSerializerTest, ProducersOnSeveralThreadsFoldIntoOneSectionEach) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  constexpr int kThreads = 4, kPerThread = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        const uint64_t id = static_cast<uint64_t>(t * kPerThread + i + 1);
        serializer->appendSection(MakeSection(static_cast<uint32_t>(i % 2), {MakeResult("r", id)}));
      }
    });
  }
  for (auto& t : threads) t.join();
  auto sections = SerializeAndRead(*serializer);
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(sections[0]->resultsCount() + sections[1]->resultsCount(),
            size_t{kThreads * kPerThread});
}

// A producer's own result type offering every optional operation.
class MailHit : public kx::Object, public KXSearchResultProtocol {
 public:
  static inline int capabilityQueries = 0;
  std::string className() const override { return "MailHit"; }
  uint32_t offeredOperations() const override {
    ++capabilityQueries;
    return 0xFF;
  }
  std::optional<std::string_view> titleUTF8String() const override { return "Lunch"; }
  std::optional<std::string_view> subtitleUTF8String() const override { return "Ann"; }
  std::optional<std::string_view> summaryUTF8String() const override { return "At noon"; }
  std::optional<std::string_view> auxiliaryTitleUTF8String() const override { return "Today"; }
  std::optional<std::string_view> auxiliarySubtitleUTF8String() const override { return "12:00"; }
  std::optional<std::string_view> URLUTF8String() const override { return "mail://1"; }
  uint64_t identifier() const override { return 0; }
  bool getBadgeValue(kx::Value* badge) const override {
    *badge = kx::Value(3);
    return true;
  }
};

// Offers a title only; must not be asked for anything else.
class NoteHit : public kx::Object, public KXSearchResultProtocol {
 public:
  static inline int capabilityQueries = 0;
  std::string className() const override { return "NoteHit"; }
  uint32_t offeredOperations() const override {
    ++capabilityQueries;
    return kTitleUTF8String;
  }
  std::optional<std::string_view> titleUTF8String() const override { return "Note"; }
  std::optional<std::string_view> subtitleUTF8String() const override { std::abort(); }
  uint64_t identifier() const override { std::abort(); }
};

std::shared_ptr<KXSearchResult> AppendOneForeign(const kx::ObjectRef& foreign) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  serializer->appendSection(MakeSection(3));
  serializer->appendResult(foreign);
  auto sections = SerializeAndRead(*serializer);
  if (sections.size() != 1 || sections[0]->resultsCount() != 1) return nullptr;
  return sections[0]->resultsAtIndex(0);
}

TEST(KXSearchResultSerializerTest, ForeignResultKeepsSecondaryLinesOnlyOnATablet) {
  setenv("KX_DEVICE_KIND", "handset", 1);
  auto handset = AppendOneForeign(std::make_shared<MailHit>());
  ASSERT_NE(handset, nullptr);
  EXPECT_EQ(handset->title(), "Lunch");
  EXPECT_EQ(handset->summary(), "At noon");
  EXPECT_EQ(handset->url(), "mail://1");
  EXPECT_FALSE(handset->hasSubtitle());
  EXPECT_FALSE(handset->hasAuxiliaryTitle());
  EXPECT_FALSE(handset->hasAuxiliarySubtitle());
  EXPECT_TRUE(handset->hasIdentifier());  // taken even when 0
  EXPECT_EQ(handset->identifier(), 0u);
  EXPECT_TRUE(handset->hasFlags());
  EXPECT_EQ(handset->flags(), 2);
  EXPECT_EQ(handset->searchResultDomain(), 3u);

  setenv("KX_DEVICE_KIND", "tablet", 1);
  auto tablet = AppendOneForeign(std::make_shared<MailHit>());
  ASSERT_NE(tablet, nullptr);
  EXPECT_EQ(tablet->subtitle(), "Ann");
  EXPECT_EQ(tablet->auxiliaryTitle(), "Today");
  EXPECT_EQ(tablet->auxiliarySubtitle(), "12:00");

  auto note = AppendOneForeign(std::make_shared<NoteHit>());
  ASSERT_NE(note, nullptr);
  EXPECT_EQ(note->title(), "Note");
  EXPECT_FALSE(note->hasIdentifier());
  EXPECT_FALSE(note->hasFlags());
}

TEST(KXSearchResultSerializerTest, CapabilitiesAreAskedOncePerRunOfOneClass) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  serializer->appendSection(MakeSection(3));
  MailHit::capabilityQueries = NoteHit::capabilityQueries = 0;
  for (int i = 0; i < 3; ++i) serializer->appendResult(std::make_shared<MailHit>());
  EXPECT_EQ(MailHit::capabilityQueries, 1);
  serializer->appendResult(std::make_shared<NoteHit>());
  serializer->appendResult(std::make_shared<MailHit>());
  EXPECT_EQ(NoteHit::capabilityQueries, 1);
  EXPECT_EQ(MailHit::capabilityQueries, 2);
}

}  // namespace
