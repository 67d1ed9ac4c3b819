// Reads arbitrary bytes as a packed stream of sections with every section
// reader. None may crash or read out of bounds; a section that decodes must
// encode to bytes that decode again and re-encode to the same bytes, and
// the domain readers must agree with the full reader on encoded sections.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "kx/KXSearchResultSection.h"

namespace {

void CheckRoundTrip(const KXSearchResultSection& section) {
  WireWriter writer;
  section.serializeTo(writer);
  const std::vector<uint8_t> once = writer.copyData();

  KXSearchResultSection again;
  WireReader reader(once.data(), once.size());
  if (!again.readFrom(reader) || reader.position() != once.size()) std::abort();
  WireWriter rewriter;
  again.serializeTo(rewriter);
  if (rewriter.copyData() != once) std::abort();

  uint32_t domain = 0;
  WireReader domainReader(once.data(), once.size());
  if (!KXSearchResultSectionReadDomainFrom(&domain, domainReader)) std::abort();
  if (domainReader.position() != once.size()) std::abort();
  if (domain != (section.hasDomain() ? section.domain() : KXSearchResultSection::kNoDomain)) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  uint32_t domain;
  WireReader first(data, size);
  KXSearchResultSectionReadFirstDomainOnly(&domain, first);

  WireReader domains(data, size);
  while (domains.hasMoreData() && KXSearchResultSectionReadDomainFrom(&domain, domains)) {
  }

  // The consumer loop of the packed stream: sections until the first
  // failure. A failed read may leave the reader confined to a nested
  // result, so it is not used afterwards.
  WireReader stream(data, size);
  while (stream.hasMoreData()) {
    KXSearchResultSection section;
    if (!section.readFrom(stream)) break;
    section.description();
    section.hash();
    CheckRoundTrip(section);
  }
  return 0;
}
