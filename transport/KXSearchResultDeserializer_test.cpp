#include "transport/KXSearchResultDeserializer.h"

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
#include "model/wire_writer.h"
#include "platform/shared_memory.h"
#include "transport/result_stream_testing.h"

namespace {

using kx::test::MakeResult;
using kx::test::MakeSection;
using kx::test::ReadAllSections;
using Bytes = std::vector<uint8_t>;

// A stream of a full section, one with neither domain nor results (a bare
// mark) and a third; `ends` receives the offset after each section's mark.
Bytes ThreeSectionStream(std::vector<size_t>* ends = nullptr) {
  auto first = MakeSection(2, {MakeResult("Ann", 1), MakeResult("Bob", 2)});
  first->setIcon("person");
  first->setDisplayIdentifier("com.orvex.contacts");
  first->addHiddenExtResult(kx::Dictionary{{"type", kx::Value("dup")}});
  auto third = MakeSection(7, {MakeResult("Song", 3)});
  third->resultsAtIndex(0)->setSummary(std::string(20000, 's'));  // a three-byte length
  third->resultsAtIndex(0)->setFlags(-1);                        // a ten-byte varint
  third->setResultSetIdentifier("rs-1");
  WireWriter writer;
  for (const auto& s : {first, std::make_shared<KXSearchResultSection>(), third}) {
    s->serializeTo(writer);
    if (ends) ends->push_back(writer.size());
  }
  return writer.copyData();
}

// The reader takes the region over, so it gets its own heap copy.
std::shared_ptr<KXSearchResultDeserializer> ReaderOver(const uint8_t* bytes, size_t length) {
  void* copy = std::malloc(length ? length : 1);
  if (length) std::memcpy(copy, bytes, length);
  return KXSearchResultDeserializer::initWithMallocRegion(copy, length);
}

Bytes Encoded(const KXSearchResultSection& section) {
  WireWriter writer;
  section.writeTo(writer);
  return writer.copyData();
}

TEST(KXSearchResultDeserializerTest, ReadsSectionsAndDomainsUntilTheEnd) {
  const Bytes stream = ThreeSectionStream();
  auto reader = ReaderOver(stream.data(), stream.size());
  auto sections = ReadAllSections(*reader);
  ASSERT_EQ(sections.size(), 3u);
  EXPECT_EQ(sections[0]->resultsCount(), 2u);
  EXPECT_EQ(sections[0]->hiddenExtResults().size(), 1u);
  EXPECT_FALSE(sections[1]->hasDomain());
  EXPECT_EQ(sections[2]->resultsAtIndex(0)->flags(), -1);
  auto section = std::make_shared<KXSearchResultSection>();
  EXPECT_FALSE(reader->deserializeNextSection(section.get()));

  auto domains = ReaderOver(stream.data(), stream.size());
  std::vector<uint32_t> seen;
  uint32_t domain = 0;
  while (domains->deserializeNextDomain(&domain)) seen.push_back(domain);
  EXPECT_EQ(seen, (std::vector<uint32_t>{2, 0xFFFFFFFF, 7}));

  auto empty = ReaderOver(nullptr, 0);
  EXPECT_FALSE(empty->deserializeNextSection(section.get()));
  EXPECT_FALSE(empty->deserializeNextDomain(&domain));
}

TEST(KXSearchResultDeserializerTest, CutRegionKeepsTheWholeSectionsBeforeTheCut) {
  std::vector<size_t> ends;
  const Bytes stream = ThreeSectionStream(&ends);
  auto whole = ReaderOver(stream.data(), stream.size());
  const auto originals = ReadAllSections(*whole);
  ASSERT_EQ(originals.size(), 3u);

  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    size_t complete = 0;
    while (complete < ends.size() && ends[complete] <= cut) ++complete;

    auto reader = ReaderOver(stream.data(), cut);
    auto sections = ReadAllSections(*reader);
    ASSERT_EQ(sections.size(), complete);
    for (size_t i = 0; i < complete; ++i) EXPECT_EQ(Encoded(*sections[i]), Encoded(*originals[i]));
    // A failed call leaves the reader failing.
    auto again = std::make_shared<KXSearchResultSection>();
    EXPECT_FALSE(reader->deserializeNextSection(again.get()));

    auto domains = ReaderOver(stream.data(), cut);
    size_t count = 0;
    uint32_t domain = 0;
    while (domains->deserializeNextDomain(&domain)) ++count;
    EXPECT_EQ(count, complete);
  }
}

TEST(KXSearchResultDeserializerTest, DamagedSectionEndsTheLoopAfterTheSectionsBeforeIt) {
  std::vector<size_t> ends;
  Bytes stream = ThreeSectionStream(&ends);
  // The third section's result: make its length overrun the region.
  size_t at = ends[1] + 2;  // after 0x08 0x07
  ASSERT_EQ(stream[at], 0x3A);
  while (stream[++at] & 0x80) stream[at] = 0xFF;
  stream[at] = 0x7F;
  auto reader = ReaderOver(stream.data(), stream.size());
  EXPECT_EQ(ReadAllSections(*reader).size(), 2u);
}

TEST(KXSearchResultDeserializerTest, NullPointerIsReported) {
  const Bytes stream = ThreeSectionStream();
  auto reader = ReaderOver(stream.data(), stream.size());
  kx::ScopedAssertionRecorder recorder;
  EXPECT_FALSE(reader->deserializeNextSection(nullptr));
  EXPECT_FALSE(reader->deserializeNextDomain(nullptr));
  const std::string text = "Must have valid pointer to an KXSearchResultSection";
  EXPECT_EQ(recorder.texts(), (std::vector<std::string>{text, text}));
}

TEST(KXSearchResultDeserializerTest, MappedRegionIsLoggedReadAndUnmapped) {
  const Bytes stream = ThreeSectionStream();
  void* region = mmap(nullptr, stream.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                      -1, 0);
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
  EXPECT_EQ(reader->byteVector(), reinterpret_cast<uintptr_t>(region));
  EXPECT_EQ(ReadAllSections(*reader).size(), 3u);
  reader.reset();
  EXPECT_EQ(msync(region, stream.size(), MS_ASYNC), -1);
  EXPECT_EQ(errno, ENOMEM);  // no longer mapped

  EXPECT_EQ(KXSearchResultDeserializer::initWithMappedRegion(nullptr, 1), nullptr);
}

TEST(KXSearchResultDeserializerTest, TakesOverAReceivedSharedMemoryRegion) {
  const Bytes stream = ThreeSectionStream();
  auto* sent = static_cast<uint8_t*>(kx::SharedMemoryAllocator::Allocate(stream.size()));
  ASSERT_NE(sent, nullptr);
  std::memcpy(sent, stream.data(), stream.size());
  auto receive = [&] {
    return kx::MapReceivedRegion(
        kx::SharedMemoryAllocator::DuplicateSealedDescriptor(sent, stream.size()), stream.size());
  };

  auto reader = KXSearchResultDeserializer::initWithRegion(receive(), stream.size());
  ASSERT_NE(reader, nullptr);
  EXPECT_FALSE(reader->munmapAtDealloc());
  EXPECT_EQ(ReadAllSections(*reader).size(), 3u);
  EXPECT_EQ(KXSearchResultDeserializer::initWithRegion(receive(), stream.size() + 1), nullptr);
  kx::SharedMemoryAllocator::Free(sent);
}

}  // namespace
