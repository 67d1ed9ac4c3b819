// Feeds arbitrary bytes to a client as a packed result stream: the consumer
// loop of deserializeNextSection, and separately the domain scan of
// deserializeNextDomain. Neither may crash, hang or read outside the region
// (the region is an exact-size heap copy, so ASan sees any overrun).
//
// What decoded is then checked for consistency: the sections re-encode to a
// well-formed stream that decodes to the same number of sections and encodes
// again to the same bytes, and whose domain scan agrees with the sections.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "kx/KXSearchResultSection.h"
#include "kx/WireWriter.h"
#include "kx/KXSearchResultDeserializer.h"

namespace {

std::shared_ptr<KXSearchResultDeserializer> ReaderOver(const uint8_t* data, size_t size) {
  void* copy = std::malloc(size ? size : 1);
  if (!copy) std::abort();
  if (size) std::memcpy(copy, data, size);
  auto reader = KXSearchResultDeserializer::initWithMallocRegion(copy, size);
  if (!reader) std::abort();
  return reader;
}

std::vector<std::shared_ptr<KXSearchResultSection>> ReadSections(const uint8_t* data,
                                                                 size_t size) {
  auto reader = ReaderOver(data, size);
  std::vector<std::shared_ptr<KXSearchResultSection>> sections;
  while (true) {
    auto section = std::make_shared<KXSearchResultSection>();
    if (!reader->deserializeNextSection(section.get())) break;
    sections.push_back(std::move(section));
  }
  return sections;
}

std::vector<uint32_t> ReadDomains(const uint8_t* data, size_t size) {
  auto reader = ReaderOver(data, size);
  std::vector<uint32_t> domains;
  uint32_t domain = 0;
  while (reader->deserializeNextDomain(&domain)) domains.push_back(domain);
  return domains;
}

std::vector<uint8_t> Encode(const std::vector<std::shared_ptr<KXSearchResultSection>>& sections) {
  WireWriter writer;
  for (const auto& s : sections) s->serializeTo(writer);
  return writer.copyData();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto sections = ReadSections(data, size);
  // Hostile wire types can make the two loops part ways, so the scan of the
  // raw input is only required to end safely.
  (void)ReadDomains(data, size);

  const std::vector<uint8_t> encoded = Encode(sections);
  const auto again = ReadSections(encoded.data(), encoded.size());
  if (again.size() != sections.size()) std::abort();
  if (Encode(again) != encoded) std::abort();

  const std::vector<uint32_t> domains = ReadDomains(encoded.data(), encoded.size());
  if (domains.size() != sections.size()) std::abort();
  for (size_t i = 0; i < sections.size(); ++i) {
    const uint32_t expected =
        sections[i]->hasDomain() ? sections[i]->domain() : KXSearchResultSection::kNoDomain;
    if (domains[i] != expected) std::abort();
  }
  return 0;
}
