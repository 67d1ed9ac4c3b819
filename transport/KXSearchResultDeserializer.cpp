#include "transport/KXSearchResultDeserializer.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "kx/assert.h"
#include "kx/log.h"
#include "model/KXSearchResultSection.h"
#include "platform/shared_memory.h"
#include "transport/KXSearchResultSerializer.h"

namespace {

constexpr const char kNullSectionPointer[] =
    "Must have valid pointer to an KXSearchResultSection";

// The section's field numbers by declared type: 1 (domain) and 6 (flags)
// are varints, 2 to 5 and 7 to 9 length-delimited (strings, nested results,
// the hidden-results archive).
constexpr uint64_t kDomainField = 1;
constexpr uint64_t kFlagsField = 6;
constexpr uint64_t kLastField = 9;

}  // namespace

KXSearchResultDeserializer::KXSearchResultDeserializer(const uint8_t* bytes, size_t length,
                                                       Ownership ownership)
    : WireReader(bytes, length),
      byteVector_(reinterpret_cast<uintptr_t>(bytes)),
      regionLength_(length),
      ownership_(ownership) {}

std::shared_ptr<KXSearchResultDeserializer> KXSearchResultDeserializer::Make(
    void* address, size_t length, Ownership ownership) {
  KXLOG(7, "Init'ing deserializer with mapped region %p length %zu",
        static_cast<const void*>(address), length);
  if (!address && length != 0) return nullptr;
  return std::shared_ptr<KXSearchResultDeserializer>(new KXSearchResultDeserializer(
      static_cast<const uint8_t*>(address), length, ownership));
}

std::shared_ptr<KXSearchResultDeserializer> KXSearchResultDeserializer::initWithMappedRegion(
    void* address, size_t length) {
  return Make(address, length, Ownership::Mapped);
}

std::shared_ptr<KXSearchResultDeserializer> KXSearchResultDeserializer::initWithMallocRegion(
    void* address, size_t length) {
  return Make(address, length, Ownership::Malloc);
}

std::shared_ptr<KXSearchResultDeserializer> KXSearchResultDeserializer::initWithSerializer(
    const KXSearchResultSerializer& serializer) {
  const size_t count = serializer.byteVectorCount();
  // malloc(0) may answer null, which would read as a missing region.
  void* copy = std::malloc(count ? count : 1);
  if (!copy) return nullptr;
  if (count) std::memcpy(copy, serializer.byteVector(), count);
  auto reader = initWithMallocRegion(copy, count);
  if (!reader) std::free(copy);
  return reader;
}

std::shared_ptr<KXSearchResultDeserializer> KXSearchResultDeserializer::initWithRegion(
    std::unique_ptr<kx::SharedMemoryRegion> region, size_t length) {
  if (!region || length > region->size()) return nullptr;
  auto reader = Make(const_cast<uint8_t*>(region->data()), length, Ownership::Region);
  if (reader) reader->region_ = std::move(region);
  return reader;
}

KXSearchResultDeserializer::~KXSearchResultDeserializer() {
  void* address = reinterpret_cast<void*>(static_cast<uintptr_t>(byteVector_));
  switch (ownership_) {
    case Ownership::Mapped:
      if (address && regionLength_) munmap(address, regionLength_);
      break;
    case Ownership::Malloc:
      std::free(address);
      break;
    case Ownership::Region:
      break;  // region_ unmaps or frees itself
  }
}

bool KXSearchResultDeserializer::deserializeNextSection(KXSearchResultSection* section) {
  KX_ASSERT(section != nullptr, kNullSectionPointer);
  if (!section || !hasMoreData()) return false;
  const size_t start = position();
  return finishSection(start, section->readFrom(*this));
}

bool KXSearchResultDeserializer::deserializeNextDomain(uint32_t* domain) {
  KX_ASSERT(domain != nullptr, kNullSectionPointer);
  if (!domain || !hasMoreData()) return false;
  const size_t start = position();
  return finishSection(start, KXSearchResultSectionReadDomainFrom(domain, *this));
}

bool KXSearchResultDeserializer::finishSection(size_t start, bool decoded) {
  // A section reader stops at its end mark or at the end of the bytes, and
  // reports success either way. Only a section that took the region's last
  // byte can have stopped without its mark: a region cut right after a
  // complete field.
  if (decoded && position() == regionLength_ && !EndsWithMark(bytes() + start, regionLength_ - start))
    decoded = false;
  // After a failure the position is meaningless (the reader may still be
  // confined to a nested record); the error flag makes every further call
  // fail.
  if (!decoded) setError();
  return decoded;
}

bool KXSearchResultDeserializer::EndsWithMark(const uint8_t* section, size_t length) {
  // Walks the section's top-level fields the way the section reader does
  // (known fields by their declared type, whatever the wire says; nested
  // results by their length, without entering them) until a key of wire
  // type 4.
  WireReader reader(section, length);
  while (reader.hasMoreData()) {
    const uint64_t key = reader.readKey();
    if (reader.hasError()) return false;
    if (WireReader::WireTypeOfKey(key) == WireType::EndGroup) return !reader.hasMoreData();
    const uint64_t field = (key >> 3) & 0xFFFF;
    if (field == kDomainField || field == kFlagsField) {
      reader.readVarint();
    } else if (field >= 1 && field <= kLastField) {
      reader.readDataView();
    } else if (!reader.skipField(key)) {
      return false;
    }
    if (reader.hasError()) return false;
  }
  return false;
}
