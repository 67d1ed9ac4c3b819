// Shared-memory regions for handing large payloads to another process.
//
// Regions are page-rounded memfd mappings made by one process-wide allocator
// that remembers which descriptor backs each address, so a message can attach
// a region by address and the message layer sends a duplicate of its
// descriptor. Before a region is handed over it is sealed against shrinking
// and growing. The receiving side checks the shrink seal and maps the region
// privately and read-only, so a hostile sender can neither shrink it under the
// reader (SIGBUS) nor make the reader write to it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace kx {

size_t PageSize();
// Rounds up to a whole number of pages.
size_t RoundToPages(size_t length);
// munmap that logs a failure at level 3: the mapping then stays for good,
// which is always a bug (a length its file system rounds differently, an
// address not mapped here).
void UnmapSharedMemory(void* address, size_t length);

// A region this process owns (writable) or received (read-only). Unmaps on
// destruction; owns its descriptor.
class SharedMemoryRegion {
 public:
  virtual ~SharedMemoryRegion() = default;
  virtual const uint8_t* data() const = 0;
  virtual size_t size() const = 0;  // mapped length (page-rounded when allocated here)
};

class SharedMemoryAllocator {
 public:
  // Allocates a writable, zero-filled memfd region of at least `length`
  // bytes (page-rounded). Returns null when the kernel refuses.
  static void* Allocate(size_t length, size_t* allocatedLength = nullptr);
  // Unmaps a region made by Allocate and closes its descriptor.
  static void Free(void* address);
  // True when `address` is the start of a region made by Allocate.
  static bool Owns(const void* address);
  // Seals the region that backs `address` (shrink, grow, seal) and returns a
  // new descriptor for it that the caller owns, or -1. For an address the
  // allocator does not know, the first `length` bytes are copied into a new
  // sealed memfd.
  static int DuplicateSealedDescriptor(const void* address, size_t length);
};

// Maps a received descriptor privately and read-only after checking the
// shrink seal and that `declaredLength` fits in the file. Takes ownership of
// `fd` (closes it on every path). Null on failure.
std::unique_ptr<SharedMemoryRegion> MapReceivedRegion(int fd, size_t declaredLength);

// A heap region for in-process streams.
std::unique_ptr<SharedMemoryRegion> MakeHeapRegion(size_t length, uint8_t** writable);

}  // namespace kx
