#include "kx/KXSearchResultDeserializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kx/assert.h"
#include "kx/format.h"
#include "kx/log.h"
#include "kx/WireWriter.h"
#include "platform/message/shared_memory.h"
#include "transport/result_stream_testing.h"
#include "tests/support/assertion_recorder.h"

namespace {

using kx::test::MakeResult;
using kx::test::MakeSection;
using kx::test::ReadAllSections;
using Bytes = std::vector<uint8_t>;

// A full section, one with neither domain nor results (a bare mark) and a
// third whose result holds a ten-byte varint and a summary of the given
// length (20,000 bytes need a three-byte record length). `ends` receives the
// offset after each section's mark.
Bytes ThreeSectionStream(size_t summaryLength, std::vector<size_t>* ends = nullptr) {
  auto first = MakeSection(2, {MakeResult("Ann", 1), MakeResult("Bob", 2)});
  first->setIcon("person");
  first->addHiddenExtResult(kx::Dictionary{{"type", kx::Value("dup")}});
  auto third = MakeSection(7, {MakeResult("Song", 3)});
  third->resultsAtIndex(0)->setSummary(std::string(summaryLength, 's'));
  third->resultsAtIndex(0)->setFlags(-1);
  WireWriter writer;
  for (const auto& s : {first, std::make_shared<KXSearchResultSection>(), third}) {
    s->serializeTo(writer);
    if (ends) ends->push_back(writer.size());
  }
  return writer.copyData();
}

// The reader takes the region over, so it gets its own heap copy.
std::shared_ptr<KXSearchResultDeserializer> ReaderOver(const Bytes& bytes, size_t length) {
  void* copy = std::malloc(length ? length : 1);
  if (length) std::memcpy(copy, bytes.data(), length);
  return KXSearchResultDeserializer::initWithMallocRegion(copy, length);
}

std::vector<uint32_t> ReadAllDomains(KXSearchResultDeserializer& reader) {
  std::vector<uint32_t> domains;
  uint32_t domain = 0;
  while (reader.deserializeNextDomain(&domain)) domains.push_back(domain);
  return domains;
}

Bytes Encoded(const KXSearchResultSection& section) {
  WireWriter writer;
  section.writeTo(writer);
  return writer.copyData();
}

TEST(KXSearchResultDeserializerTest, ReadsSectionsOrDomainsUntilTheEnd) {
  const Bytes stream = ThreeSectionStream(20000);
  auto sections = ReadAllSections(*ReaderOver(stream, stream.size()));
  ASSERT_EQ(sections.size(), 3u);
  EXPECT_EQ(sections[0]->resultsCount(), 2u);
  EXPECT_EQ(sections[0]->hiddenExtResults().size(), 1u);
  EXPECT_FALSE(sections[1]->hasDomain());
  EXPECT_EQ(sections[2]->resultsAtIndex(0)->flags(), -1);
  EXPECT_EQ(ReadAllDomains(*ReaderOver(stream, stream.size())),
            (std::vector<uint32_t>{2, 0xFFFFFFFF, 7}));
}

TEST(KXSearchResultDeserializerTest, CutRegionKeepsTheWholeSectionsBeforeTheCut) {
  std::vector<size_t> ends;
  const Bytes stream = ThreeSectionStream(300, &ends);
  const auto originals = ReadAllSections(*ReaderOver(stream, stream.size()));
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    size_t whole = 0;
    while (whole < ends.size() && ends[whole] <= cut) ++whole;

    auto reader = ReaderOver(stream, cut);
    auto sections = ReadAllSections(*reader);
    ASSERT_EQ(sections.size(), whole);
    for (size_t i = 0; i < whole; ++i) EXPECT_EQ(Encoded(*sections[i]), Encoded(*originals[i]));
    auto again = std::make_shared<KXSearchResultSection>();
    EXPECT_FALSE(reader->deserializeNextSection(again.get()));
    EXPECT_EQ(ReadAllDomains(*ReaderOver(stream, cut)).size(), whole);
  }
}

TEST(KXSearchResultDeserializerTest, NullPointerIsReported) {
  const Bytes stream = ThreeSectionStream(300);
  auto reader = ReaderOver(stream, stream.size());
  kx::ScopedAssertionRecorder recorder;
  EXPECT_FALSE(reader->deserializeNextSection(nullptr));
  EXPECT_FALSE(reader->deserializeNextDomain(nullptr));
  const std::string text = "Must have valid pointer to an KXSearchResultSection";
  EXPECT_EQ(recorder.texts(), (std::vector<std::string>{text, text}));
}

TEST(KXSearchResultDeserializerTest, TakesOverMappedRegions) {
  const Bytes stream = ThreeSectionStream(300);
  void* region = mmap(nullptr, stream.size(), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(region, MAP_FAILED);
  std::memcpy(region, stream.data(), stream.size());
  setKXLogLevel(7);
  setKXLogOutputLevel(7);
  testing::internal::CaptureStderr();
  auto reader = KXSearchResultDeserializer::initWithMappedRegion(region, stream.size());
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr(kx::Format("Init'ing deserializer with mapped region %p length %zu",
                                            static_cast<const void*>(region), stream.size())));
  ASSERT_NE(reader, nullptr);
  EXPECT_TRUE(reader->munmapAtDealloc());
  EXPECT_EQ(ReadAllSections(*reader).size(), 3u);
  reader.reset();
  EXPECT_EQ(msync(region, stream.size(), MS_ASYNC), -1);
  EXPECT_EQ(errno, ENOMEM);  // no longer mapped

  // A region as the message layer receives it: a sealed memfd mapped
  // privately and read-only.
  auto* sent = static_cast<uint8_t*>(kx::SharedMemoryAllocator::Allocate(stream.size()));
  ASSERT_NE(sent, nullptr);
  std::memcpy(sent, stream.data(), stream.size());
  auto receive = [&] {
    return kx::MapReceivedRegion(
        kx::SharedMemoryAllocator::DuplicateSealedDescriptor(sent, stream.size()), stream.size());
  };
  auto received = KXSearchResultDeserializer::initWithRegion(receive(), stream.size());
  ASSERT_NE(received, nullptr);
  EXPECT_EQ(ReadAllSections(*received).size(), 3u);
  EXPECT_EQ(KXSearchResultDeserializer::initWithRegion(receive(), stream.size() + 1), nullptr);
  kx::SharedMemoryAllocator::Free(sent);
}

}  // namespace
