#include "transport/result_stream_budget.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "kx/KXSearchResultSerializer.h"
#include "transport/result_stream_testing.h"

namespace kx {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Serialized(const std::vector<std::shared_ptr<KXSearchResultSection>>& sections) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, /*inProc=*/true);
  for (const auto& section : sections) serializer->appendSection(section);
  serializer->serialize();
  const auto* bytes = static_cast<const uint8_t*>(serializer->byteVector());
  return Bytes(bytes, bytes + serializer->byteVectorCount());
}

TEST(ResultStreamBudgetTest, MeasuresResultsAndTheListsThatMayExpand) {
  auto withProperties = test::MakeResult("b", 2);
  withProperties->setValue(Value("v"), "k");
  const Bytes stream = Serialized({test::MakeSection(3, {test::MakeResult("a", 1), withProperties,
                                                         test::MakeResult("c", 3)}),
                                   test::MakeSection(4, {test::MakeResult("d", 4)})});
  const SectionExtent first = MeasureSection(stream);
  EXPECT_EQ(first.results, 3u);
  // The empty dictionaries' archives decode to nothing and are not counted.
  EXPECT_EQ(first.propertyLists, 1u);
  EXPECT_GT(first.propertyListBytes, 0u);
  const SectionExtent second = MeasureSection(std::span(stream).subspan(first.bytes));
  EXPECT_EQ(second.results, 1u);
  EXPECT_EQ(first.bytes + second.bytes, stream.size());
}

TEST(ResultStreamBudgetTest, TheSectionPastTheBudgetEndsTheStream) {
  // Sections of 15,000 results each: three fit in the budget, the fourth
  // does not, and the fifth is never read.
  std::vector<std::shared_ptr<KXSearchResultSection>> sections;
  for (uint32_t domain = 1; domain <= 5; ++domain) {
    std::vector<std::shared_ptr<KXSearchResult>> results;
    for (uint64_t i = 1; i <= 15000; ++i) results.push_back(test::MakeResult("", i));
    sections.push_back(test::MakeSection(domain, results));
  }
  static_assert(3 * 15000 * kDecodedResultCost < kResultStreamDecodeBudget &&
                4 * 15000 * kDecodedResultCost > kResultStreamDecodeBudget);
  const Bytes stream = Serialized(sections);
  void* copy = std::malloc(stream.size());
  std::memcpy(copy, stream.data(), stream.size());
  auto reader = KXSearchResultDeserializer::initWithMallocRegion(copy, stream.size());
  const auto read = test::ReadAllSections(*reader);
  ASSERT_EQ(read.size(), 3u);
  EXPECT_EQ(read[2]->domain(), 3u);
  EXPECT_EQ(read[2]->resultsCount(), 15000u);
}

}  // namespace
}  // namespace kx
