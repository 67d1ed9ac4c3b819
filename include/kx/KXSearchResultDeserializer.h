// KXSearchResultDeserializer: reads a packed result stream (see
// KXSearchResultSerializer.h) one section, or one section's domain, at a
// time, decoding straight from the region without copying it.
//
// It is a WireReader over the region and owns the region from creation on:
// releasing the reader unmaps it (a region mapped by the message layer),
// frees it (a heap copy) or drops the kx::SharedMemoryRegion it was given.
// The region must not be touched by anyone else while the reader lives.
//
// Consumer loop: make a fresh empty section, call deserializeNextSection,
// keep the section while the call returns true, stop at the first false.
// A damaged or cut section returns false, so every section before it is
// kept intact; a section counts as whole only with its end mark, so a
// region cut between two fields of a section does not pass its first part
// off as the whole. After a false every further call is false too. One
// thread at a time.
//
// A stream comes from another process, so what reading it may cost is
// bounded: received streams longer than 2 MiB are refused whole, and the
// section that would take decoding past its budget fails like a damaged
// one (transport/result_stream_budget.h).
#pragma once

#include "kx/export.h"

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kx/value.h"
#include "kx/WireReader.h"

class KXSearchResultSection;
class KXSearchResultSerializer;

namespace kx {
class SharedMemoryRegion;
}

class KX_EXPORT KXSearchResultDeserializer : public WireReader, public kx::Object {
 public:
  // Takes over `length` bytes at `address`, mapped with mmap: unmapped on
  // release. Logs "Init'ing deserializer with mapped region %p length %zu" at
  // level 7. Null when `address` is null but `length` is not 0.
  static std::shared_ptr<KXSearchResultDeserializer> initWithMappedRegion(void* address,
                                                                          size_t length);
  // The same for a region from malloc: freed on release.
  static std::shared_ptr<KXSearchResultDeserializer> initWithMallocRegion(void* address,
                                                                          size_t length);
  // Reads a copy of the serializer's encoded bytes (empty before serialize).
  static std::shared_ptr<KXSearchResultDeserializer> initWithSerializer(
      const KXSearchResultSerializer& serializer);
  // Takes over a region object (a received shared-memory mapping) and reads
  // its first `length` bytes; null when `length` exceeds the region or the
  // limit on received streams.
  static std::shared_ptr<KXSearchResultDeserializer> initWithRegion(
      std::unique_ptr<kx::SharedMemoryRegion> region, size_t length);

  ~KXSearchResultDeserializer() override;
  KXSearchResultDeserializer(const KXSearchResultDeserializer&) = delete;
  KXSearchResultDeserializer& operator=(const KXSearchResultDeserializer&) = delete;

  std::string className() const override { return "KXSearchResultDeserializer"; }

  // Decodes the next section, up to and including its end mark, into
  // `section` (which should be fresh and empty). False at the end of the
  // stream and for a section that fails to decode; the caller then drops the
  // section. A null `section` is the assertion "Must have valid pointer to an
  // KXSearchResultSection".
  bool deserializeNextSection(KXSearchResultSection* section);

  // Stores the next section's domain (0xFFFFFFFF when it has none) and moves
  // past the section without building its results. Same end, failure and
  // null-pointer rules as deserializeNextSection.
  bool deserializeNextDomain(uint32_t* domain);

  // The region's address as a number, and whether release unmaps it (as
  // opposed to freeing it or dropping the region object).
  uint64_t byteVector() const { return byteVector_; }
  bool munmapAtDealloc() const { return ownership_ == Ownership::Mapped; }

 private:
  enum class Ownership { Mapped, Malloc, Region };
  KXSearchResultDeserializer(const uint8_t* bytes, size_t length, Ownership ownership);
  // Logs the creation line and builds the reader.
  static std::shared_ptr<KXSearchResultDeserializer> Make(void* address, size_t length,
                                                          Ownership ownership);
  // Charges the next section to the decoding budget (see
  // transport/result_stream_budget.h); false, with the error flag set, when
  // it does not fit.
  bool chargeNextSection();
  // The verdict on the section just read, given its reader's.
  bool finishSection(bool decoded);

  const uint64_t byteVector_;
  // The region's full length: length() shrinks while a mark is placed, and a
  // failed decode may leave it so.
  const size_t regionLength_;
  const Ownership ownership_;
  std::unique_ptr<kx::SharedMemoryRegion> region_;
  size_t decodeSpent_ = 0;
};
