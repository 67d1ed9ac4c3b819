#include "platform/message/shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "kx/log.h"

namespace kx {
namespace {

// The seals a region carries before it leaves the process. Write seals are
// not used: the owner keeps its writable shared mapping, and the kernel
// refuses a write seal while such a mapping exists.
constexpr int kHandOverSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

struct OwnedRegion {
  int fd;
  size_t length;
};

// Every region made by Allocate, by start address. Guarded by TableMutex().
std::map<const void*, OwnedRegion>& Table() {
  static auto* table = new std::map<const void*, OwnedRegion>();
  return *table;
}
std::mutex& TableMutex() {
  static auto* mutex = new std::mutex();
  return *mutex;
}

int CreateMemfd(size_t length) {
  int fd = memfd_create("kx-shm", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0) {
    KXLOG(3, "memfd_create failed: %s", std::strerror(errno));
    return -1;
  }
  if (ftruncate(fd, static_cast<off_t>(length)) != 0) {
    KXLOG(3, "ftruncate of shared memory to %zu failed: %s", length, std::strerror(errno));
    close(fd);
    return -1;
  }
  return fd;
}

// Adds the hand-over seals unless they are all there already (once
// F_SEAL_SEAL is set, adding seals fails even when nothing would change).
bool Seal(int fd) {
  int seals = fcntl(fd, F_GET_SEALS);
  if (seals < 0) return false;
  if ((seals & kHandOverSeals) == kHandOverSeals) return true;
  return fcntl(fd, F_ADD_SEALS, kHandOverSeals) == 0;
}

// Ordinary shared memory (memfd, /dev/shm) lives on tmpfs, whose mappings
// unmap at page granularity. Other files that accept seals (hugetlbfs) map in
// larger units, so a page-rounded munmap of them fails and the mapping leaks.
bool IsOrdinarySharedMemory(int fd) {
  struct statfs fs;
  return fstatfs(fd, &fs) == 0 && fs.f_type == TMPFS_MAGIC;
}

class MappedRegion final : public SharedMemoryRegion {
 public:
  MappedRegion(void* address, size_t mappedLength, size_t size)
      : address_(address), mappedLength_(mappedLength), size_(size) {}
  ~MappedRegion() override {
    if (mappedLength_) UnmapSharedMemory(address_, mappedLength_);
  }
  const uint8_t* data() const override { return static_cast<const uint8_t*>(address_); }
  size_t size() const override { return size_; }

 private:
  void* address_;
  size_t mappedLength_;
  size_t size_;
};

class HeapRegion final : public SharedMemoryRegion {
 public:
  explicit HeapRegion(size_t length) : bytes_(new uint8_t[length ? length : 1]()), size_(length) {}
  const uint8_t* data() const override { return bytes_.get(); }
  size_t size() const override { return size_; }
  uint8_t* writable() { return bytes_.get(); }

 private:
  std::unique_ptr<uint8_t[]> bytes_;
  size_t size_;
};

const uint8_t kEmptyRegion[1] = {0};

}  // namespace

size_t PageSize() {
  static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

size_t RoundToPages(size_t length) {
  size_t page = PageSize();
  if (length > SIZE_MAX - (page - 1)) return 0;  // no such region can exist
  return (length + page - 1) / page * page;
}

void UnmapSharedMemory(void* address, size_t length) {
  if (munmap(address, length) != 0)
    KXLOG(3, "munmap of %zu bytes of shared memory at %p failed: %s", length, address,
          std::strerror(errno));
}

void* SharedMemoryAllocator::Allocate(size_t length, size_t* allocatedLength) {
  // A zero-length request still gets one page so that it has an address.
  size_t rounded = RoundToPages(length ? length : 1);
  if (rounded == 0) return nullptr;
  int fd = CreateMemfd(rounded);
  if (fd < 0) return nullptr;
  void* address = mmap(nullptr, rounded, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) {
    KXLOG(3, "mmap of %zu bytes of shared memory failed: %s", rounded, std::strerror(errno));
    close(fd);
    return nullptr;
  }
  {
    std::lock_guard<std::mutex> lock(TableMutex());
    Table()[address] = {fd, rounded};
  }
  if (allocatedLength) *allocatedLength = rounded;
  return address;
}

void SharedMemoryAllocator::Free(void* address) {
  OwnedRegion region;
  {
    std::lock_guard<std::mutex> lock(TableMutex());
    auto it = Table().find(address);
    if (it == Table().end()) {
      KXLOG(3, "freeing shared memory %p that was not allocated here", address);
      return;
    }
    region = it->second;
    Table().erase(it);
  }
  UnmapSharedMemory(address, region.length);
  close(region.fd);
}

bool SharedMemoryAllocator::Owns(const void* address) {
  std::lock_guard<std::mutex> lock(TableMutex());
  return Table().count(address) != 0;
}

int SharedMemoryAllocator::DuplicateSealedDescriptor(const void* address, size_t length) {
  {
    // The descriptor is duplicated under the lock so that a concurrent Free
    // cannot close it in between.
    std::lock_guard<std::mutex> lock(TableMutex());
    auto it = Table().find(address);
    if (it != Table().end()) {
      if (!Seal(it->second.fd)) {
        KXLOG(3, "sealing shared memory failed: %s", std::strerror(errno));
        return -1;
      }
      return fcntl(it->second.fd, F_DUPFD_CLOEXEC, 0);
    }
  }
  // Not ours: copy the bytes into a region of its own.
  if (!address && length) return -1;
  size_t rounded = RoundToPages(length ? length : 1);
  if (rounded == 0) return -1;
  int fd = CreateMemfd(rounded);
  if (fd < 0) return -1;
  const uint8_t* bytes = static_cast<const uint8_t*>(address);
  size_t done = 0;
  while (done < length) {
    ssize_t n = pwrite(fd, bytes + done, length - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      KXLOG(3, "copying into shared memory failed: %s", std::strerror(errno));
      close(fd);
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  if (!Seal(fd)) {
    KXLOG(3, "sealing shared memory failed: %s", std::strerror(errno));
    close(fd);
    return -1;
  }
  return fd;
}

std::unique_ptr<SharedMemoryRegion> MapReceivedRegion(int fd, size_t declaredLength) {
  if (fd < 0) return nullptr;
  // Closing on every path: the mapping, if any, keeps the memory alive.
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};

  if (!IsOrdinarySharedMemory(fd)) {
    KXLOG(3, "received shared memory is not ordinary shared memory");
    return nullptr;
  }
  // The shrink seal is what guarantees that the mapping cannot lose pages
  // under the reader (which would raise SIGBUS); descriptors that cannot be
  // sealed at all (not a memfd) fail here too.
  int seals = fcntl(fd, F_GET_SEALS);
  if (seals < 0 || !(seals & F_SEAL_SHRINK)) {
    KXLOG(3, "received shared memory is not sealed against shrinking");
    return nullptr;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    KXLOG(3, "received shared memory cannot be examined");
    return nullptr;
  }
  if (static_cast<uint64_t>(st.st_size) < declaredLength) {
    KXLOG(3, "received shared memory of %lld bytes is shorter than its declared length %zu",
          static_cast<long long>(st.st_size), declaredLength);
    return nullptr;
  }
  if (declaredLength == 0) {
    return std::make_unique<MappedRegion>(const_cast<uint8_t*>(kEmptyRegion), 0, 0);
  }
  // Whole pages up to the declared length; they lie inside the file, whose
  // size is at least the declared length.
  size_t mapped = RoundToPages(declaredLength);
  if (mapped == 0) return nullptr;
  void* address = mmap(nullptr, mapped, PROT_READ, MAP_PRIVATE, fd, 0);
  if (address == MAP_FAILED) {
    KXLOG(3, "mapping received shared memory failed: %s", std::strerror(errno));
    return nullptr;
  }
  return std::make_unique<MappedRegion>(address, mapped, declaredLength);
}

std::unique_ptr<SharedMemoryRegion> MakeHeapRegion(size_t length, uint8_t** writable) {
  auto region = std::make_unique<HeapRegion>(length);
  if (writable) *writable = region->writable();
  return region;
}

}  // namespace kx
