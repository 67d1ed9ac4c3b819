#include "kx/KXSearchResultSerializer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

#include "kx/assert.h"
#include "kx/exception.h"
#include "platform/message/shared_memory.h"
#include "kx/KXSearchResultProtocol.h"
#include "transport/result_stream_testing.h"
#include "tests/support/assertion_recorder.h"

namespace {

using kx::test::MakeResult;
using kx::test::MakeSection;
using kx::test::Titles;
using TitleList = std::vector<std::optional<std::string>>;
using Texts = std::vector<std::string>;

std::vector<std::shared_ptr<KXSearchResultSection>> SerializeAndRead(
    KXSearchResultSerializer& serializer) {
  serializer.serialize();
  EXPECT_TRUE(serializer.completed());
  return kx::test::ReadAllSections(*KXSearchResultDeserializer::initWithSerializer(serializer));
}

TEST(KXSearchResultSerializerTest, PlainInitIsRefused) {
  EXPECT_THROW(
      {
        try {
          KXSearchResultSerializer::init();
        } catch (const kx::InternalInconsistencyException& e) {
          EXPECT_EQ(e.reason(), "should never call -init on KXSearchResultSerializer");
          throw;
        }
      },
      kx::InternalInconsistencyException);
}

TEST(KXSearchResultSerializerTest, SectionsOfOneDomainFoldIntoTheFirst) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0);
  auto first = MakeSection(3, {MakeResult("a", 1)});
  first->setIcon("first-icon");
  first->setFlags(5);
  auto second = MakeSection(3, {MakeResult("b", 2), MakeResult("c", 3)});
  second->setIcon("second-icon");
  second->setScheme("second-scheme");
  serializer->appendSection(first);
  serializer->appendSection(MakeSection(4, {MakeResult("x", 9)}));
  serializer->appendSection(second);
  EXPECT_EQ(serializer->sectionCount(), 2u);

  auto sections = SerializeAndRead(*serializer);
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(sections[0]->icon(), "first-icon");
  EXPECT_FALSE(sections[0]->hasScheme());
  EXPECT_EQ(sections[0]->flags(), 5);
  EXPECT_EQ(Titles(*sections[0]), (TitleList{"a", "b", "c"}));
  EXPECT_EQ(Titles(*sections[1]), (TitleList{"x"}));
}

// Results that a section's set takes for one: same identifier and url (so
// the same hash), same external identifier and bundle (so equal).
std::shared_ptr<KXSearchResult> Duplicate(uint64_t identifier, int32_t flags, uint64_t score,
                                          bool withURL = true) {
  auto r = MakeResult(score == 1 ? "old" : "new", identifier);
  if (withURL) r->setUrl("kx://item/7");
  r->setExternalIdentifier("ext-7");
  r->setBundleID("com.orvex.mail");
  r->setFlags(flags);
  r->setScore(score);
  return r;
}

TEST(KXSearchResultSerializerTest, EquivalentDuplicateMergesItsScoreIntoAFlaggedResult) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  // Flagged and equivalent; unflagged; flagged but not equivalent (neither
  // identifier nor url).
  const struct { uint64_t id; int32_t flags; bool url; uint64_t expected; } cases[] = {
      {7, 0x20, true, 0x40000005}, {7, 0, true, 1}, {0, 0x20, false, 1}};
  for (uint32_t i = 0; i < 3; ++i) {
    serializer->appendSection(MakeSection(i));
    serializer->appendResult(Duplicate(cases[i].id, cases[i].flags, 1, cases[i].url));
    serializer->appendResult(Duplicate(cases[i].id, 0, 4, cases[i].url));
  }
  auto sections = SerializeAndRead(*serializer);
  ASSERT_EQ(sections.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    ASSERT_EQ(Titles(*sections[i]), (TitleList{"old"})) << i;
    EXPECT_EQ(sections[i]->resultsAtIndex(0)->score(), cases[i].expected) << i;
  }
}

TEST(KXSearchResultSerializerTest, RegionIsPageRoundedAndMadeOnce) {
  auto empty = KXSearchResultSerializer::initWithInitialCapacity(1 << 20);
  empty->serialize();
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
  EXPECT_EQ(region[count - 1], 0x04);
  EXPECT_EQ(serializer->byteVectorCapacity(), kx::RoundToPages(count));
  const std::vector<uint8_t> before(region, region + count);

  // Neither a late append nor a second serialize reaches the region.
  serializer->appendSection(MakeSection(9, {MakeResult("late", 1)}));
  {
    kx::ScopedAssertionRecorder recorder;
    serializer->serialize();
    EXPECT_EQ(recorder.texts(), Texts{"Should not serialize twice"});
  }
  EXPECT_EQ(serializer->byteVector(), region);
  EXPECT_EQ(std::vector<uint8_t>(region, region + serializer->byteVectorCount()), before);
  serializer.reset();
  EXPECT_FALSE(kx::SharedMemoryAllocator::Owns(region));

  auto inProc = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  inProc->serialize();
  EXPECT_FALSE(kx::SharedMemoryAllocator::Owns(inProc->byteVector()));
}

TEST(KXSearchResultSerializerTest, ForwardedStreamIsTakenAsItIs) {
  auto source = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  source->appendSection(MakeSection(2, {MakeResult("a", 1)}));
  source->appendSection(MakeSection(3, {MakeResult("b", 2)}));
  source->serialize();
  auto forwarder = KXSearchResultSerializer::initWithInitialCapacity(0);
  EXPECT_TRUE(forwarder->appendSerializer({source->byteVector(), source->byteVectorCount()}));
  EXPECT_EQ(forwarder->sectionCount(), 1u);
  auto sections = SerializeAndRead(*forwarder);
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(Titles(*sections[1]), (TitleList{"b"}));
}

TEST(KXSearchResultSerializerTest, MisuseIsReportedAndReleasesTheLock) {
  class NotAResult : public kx::Object {
    std::string className() const override { return "NotAResult"; }
  };
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  EXPECT_THROW(serializer->appendResult(MakeResult("lost", 1)), kx::AssertionException);
  // The raising assertion left the lock free for another thread.
  auto other = std::async(std::launch::async,
                          [&] { return serializer->appendSection(MakeSection(2)); });
  ASSERT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  kx::ScopedAssertionRecorder recorder;
  EXPECT_TRUE(serializer->appendResult(std::make_shared<NotAResult>()));
  EXPECT_EQ(recorder.texts(), Texts{"Appending a result that isn't a result"});
  auto sections = SerializeAndRead(*serializer);
  ASSERT_EQ(sections.size(), 1u);
  EXPECT_EQ(sections[0]->resultsCount(), 0u);
}

TEST(KXSearchResultSerializerTest, ProducersOnSeveralThreadsAppendAtOnce) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
  std::vector<std::thread> threads;
  for (uint64_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (uint64_t i = 1; i <= 50; ++i)
        serializer->appendSection(
            MakeSection(static_cast<uint32_t>(i % 2), {MakeResult("r", t * 100 + i)}));
    });
  }
  for (auto& t : threads) t.join();
  auto sections = SerializeAndRead(*serializer);
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(sections[0]->resultsCount() + sections[1]->resultsCount(), 200u);
}

// A producer's own result type with every optional operation.
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
  std::optional<std::string_view> auxiliaryTitleUTF8String() const override { return "Today"; }
  std::optional<std::string_view> URLUTF8String() const override { return "mail://1"; }
  bool getBadgeValue(kx::Value* badge) const override {
    *badge = kx::Value(3);
    return true;
  }
};

// Offers a title only, and must not be asked for anything else.
class NoteHit : public kx::Object, public KXSearchResultProtocol {
 public:
  std::string className() const override { return "NoteHit"; }
  uint32_t offeredOperations() const override { return kTitleUTF8String; }
  std::optional<std::string_view> titleUTF8String() const override { return "Note"; }
  std::optional<std::string_view> subtitleUTF8String() const override { std::abort(); }
  uint64_t identifier() const override { std::abort(); }
};

TEST(KXSearchResultSerializerTest, ForeignResultsKeepSecondaryLinesOnlyOnATablet) {
  for (const char* kind : {"handset", "tablet"}) {
    setenv("KX_DEVICE_KIND", kind, 1);
    const bool tablet = kind == std::string("tablet");
    auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, true);
    serializer->appendSection(MakeSection(3));
    MailHit::capabilityQueries = 0;
    for (int i = 0; i < 3; ++i) serializer->appendResult(std::make_shared<MailHit>());
    serializer->appendResult(std::make_shared<NoteHit>());
    serializer->appendResult(std::make_shared<MailHit>());
    EXPECT_EQ(MailHit::capabilityQueries, 2);  // once per run of one class

    auto sections = SerializeAndRead(*serializer);
    ASSERT_EQ(sections.size(), 1u);
    ASSERT_EQ(sections[0]->resultsCount(), 5u);
    auto mail = sections[0]->resultsAtIndex(0);
    EXPECT_EQ(mail->title(), "Lunch");
    EXPECT_EQ(mail->url(), "mail://1");
    EXPECT_EQ(mail->hasSubtitle(), tablet);
    EXPECT_EQ(mail->hasAuxiliaryTitle(), tablet);
    EXPECT_TRUE(mail->hasIdentifier());  // offered, so taken even as 0
    EXPECT_EQ(mail->flags(), 2);         // the badge
    auto note = sections[0]->resultsAtIndex(3);
    EXPECT_EQ(note->title(), "Note");
    EXPECT_FALSE(note->hasIdentifier());
    EXPECT_FALSE(note->hasFlags());
  }
}

}  // namespace
