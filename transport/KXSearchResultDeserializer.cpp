#include "kx/KXSearchResultDeserializer.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "kx/assert.h"
#include "kx/log.h"
#include "kx/KXSearchResultSection.h"
#include "platform/message/shared_memory.h"
#include "transport/result_stream_budget.h"
#include "kx/KXSearchResultSerializer.h"

namespace {

constexpr const char kNullSectionPointer[] =
    "Must have valid pointer to an KXSearchResultSection";

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
  if (length > kx::kMaxReceivedResultStreamLength) {
    KXLOG(3, "Refusing a result stream of %zu bytes (at most %zu are read)", length,
          kx::kMaxReceivedResultStreamLength);
    return nullptr;
  }
  auto reader = Make(const_cast<uint8_t*>(region->data()), length, Ownership::Region);
  if (reader) reader->region_ = std::move(region);
  return reader;
}

KXSearchResultDeserializer::~KXSearchResultDeserializer() {
  void* address = reinterpret_cast<void*>(static_cast<uintptr_t>(byteVector_));
  switch (ownership_) {
    case Ownership::Mapped:
      if (address && regionLength_) kx::UnmapSharedMemory(address, regionLength_);
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
  if (!chargeNextSection()) return false;
  return finishSection(section->readFrom(*this));
}

bool KXSearchResultDeserializer::deserializeNextDomain(uint32_t* domain) {
  KX_ASSERT(domain != nullptr, kNullSectionPointer);
  if (!domain || !hasMoreData()) return false;
  return finishSection(KXSearchResultSectionReadDomainFrom(domain, *this));
}

bool KXSearchResultDeserializer::chargeNextSection() {
  // At a section's start no mark is placed, so the region's rest is the
  // stream's.
  const auto* start = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(byteVector_));
  const size_t cost =
      kx::SectionDecodeCost({start + position(), regionLength_ - position()});
  if (cost > kx::kResultStreamDecodeBudget - decodeSpent_) {
    KXLOG(3, "Result stream of %zu bytes exceeds its decoding budget after %zu bytes",
          regionLength_, position());
    setError();
    return false;
  }
  decodeSpent_ += cost;
  return true;
}

bool KXSearchResultDeserializer::finishSection(bool decoded) {
  // A section reader stops at its end mark or at the end of the bytes, and
  // reports success either way. Only the end mark makes a section whole: a
  // section that ran into the end of the region without one was cut (right
  // after a complete field, or it would have failed).
  if (decoded && endGroupEnd() != position()) decoded = false;
  // After a failure the position is meaningless (the reader may still be
  // confined to a nested record); the error flag makes every further call
  // fail.
  if (!decoded) setError();
  return decoded;
}
