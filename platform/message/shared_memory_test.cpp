#include "platform/message/shared_memory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "kx/log.h"
#include "platform/message/message_testing.h"

namespace kx {
namespace {

using test::OpenDescriptorCount;

TEST(SharedMemoryTest, AllocatesPageRoundedZeroFilledRegions) {
  size_t allocated = 0;
  auto* p = static_cast<uint8_t*>(SharedMemoryAllocator::Allocate(PageSize() + 1, &allocated));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(allocated, 2 * PageSize());
  EXPECT_EQ(p[0], 0);
  EXPECT_EQ(p[allocated - 1], 0);
  p[allocated - 1] = 7;
  EXPECT_TRUE(SharedMemoryAllocator::Owns(p));
  EXPECT_FALSE(SharedMemoryAllocator::Owns(p + 1));
  SharedMemoryAllocator::Free(p);
  EXPECT_FALSE(SharedMemoryAllocator::Owns(p));
  EXPECT_EQ(RoundToPages(0), 0u);
  EXPECT_EQ(RoundToPages(PageSize()), PageSize());
}

TEST(SharedMemoryTest, HandedOverRegionIsSealedAndReadableByTheReceiver) {
  size_t fdsBefore = OpenDescriptorCount();
  auto* p = static_cast<uint8_t*>(SharedMemoryAllocator::Allocate(100));
  ASSERT_NE(p, nullptr);
  std::memcpy(p, "hello", 5);
  int fd = SharedMemoryAllocator::DuplicateSealedDescriptor(p, 100);
  ASSERT_GE(fd, 0);
  int seals = fcntl(fd, F_GET_SEALS);
  EXPECT_EQ(seals & (F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL),
            F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
  EXPECT_NE(ftruncate(fd, 1), 0);
  EXPECT_NE(ftruncate(fd, 16 * static_cast<off_t>(PageSize())), 0);
  // Sealing again (a second hand-over) still works, and the owner keeps
  // writing through its mapping.
  int again = SharedMemoryAllocator::DuplicateSealedDescriptor(p, 100);
  ASSERT_GE(again, 0);
  close(again);
  p[5] = '!';

  auto region = MapReceivedRegion(fd, 6);
  ASSERT_NE(region, nullptr);
  EXPECT_EQ(region->size(), 6u);
  EXPECT_EQ(std::memcmp(region->data(), "hello!", 6), 0);
  region.reset();
  SharedMemoryAllocator::Free(p);
  EXPECT_EQ(OpenDescriptorCount(), fdsBefore);
}

TEST(SharedMemoryTest, UnknownAddressIsCopiedIntoASealedRegion) {
  std::vector<uint8_t> bytes(5000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 31);
  int fd = SharedMemoryAllocator::DuplicateSealedDescriptor(bytes.data(), bytes.size());
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(fcntl(fd, F_GET_SEALS) & F_SEAL_SHRINK);
  auto region = MapReceivedRegion(fd, bytes.size());
  ASSERT_NE(region, nullptr);
  ASSERT_EQ(region->size(), bytes.size());
  EXPECT_EQ(std::memcmp(region->data(), bytes.data(), bytes.size()), 0);
}

TEST(SharedMemoryTest, ReceiverRefusesUnsafeRegionsAndClosesEveryDescriptor) {
  size_t fdsBefore = OpenDescriptorCount();
  // Unsealed memfd: its owner could shrink it under the reader.
  int unsealed = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  ASSERT_EQ(ftruncate(unsealed, 4096), 0);
  EXPECT_EQ(MapReceivedRegion(unsealed, 10), nullptr);
  // A memfd that can never be sealed.
  int unsealable = memfd_create("test", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(unsealable, 4096), 0);
  EXPECT_EQ(MapReceivedRegion(unsealable, 10), nullptr);
  // Not a memfd at all.
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  close(pipeFds[1]);
  EXPECT_EQ(MapReceivedRegion(pipeFds[0], 10), nullptr);
  // Declared length beyond the region.
  std::vector<uint8_t> bytes(100, 1);
  int fd = SharedMemoryAllocator::DuplicateSealedDescriptor(bytes.data(), bytes.size());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(MapReceivedRegion(fd, PageSize() + 1), nullptr);
  EXPECT_EQ(MapReceivedRegion(-1, 10), nullptr);
  EXPECT_EQ(OpenDescriptorCount(), fdsBefore);
}

TEST(SharedMemoryTest, ReceiverRefusesFilesOutsideOrdinarySharedMemoryBeforeMapping) {
  setKXLogLevel(3);
  setKXLogOutputLevel(3);
  constexpr const char* kRefused = "received shared memory is not ordinary shared memory";
  auto refusal = [](int fd, size_t length) {
    testing::internal::CaptureStderr();
    const bool refused = MapReceivedRegion(fd, length) == nullptr;
    const std::string log = testing::internal::GetCapturedStderr();
    return refused ? log : "mapped";
  };
  const size_t mappingsBefore = test::SharedMemoryMappingCount();

  // Huge-page memfds take seals like ordinary ones, but unmap only in whole
  // huge pages. Kernels without hugetlbfs cannot make one.
  ScopedFd huge(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_HUGETLB));
  if (huge) {
    ASSERT_EQ(ftruncate(huge.get(), 2 << 20), 0);
    ASSERT_EQ(fcntl(huge.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
    EXPECT_THAT(refusal(huge.release(), PageSize()), testing::HasSubstr(kRefused));
  }
  // A file on disk, beside this test's executable.
  const std::filesystem::path dir = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  ScopedFd disk(open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  ASSERT_TRUE(disk);
  ASSERT_EQ(ftruncate(disk.get(), 4096), 0);
  EXPECT_THAT(refusal(disk.release(), 10), testing::HasSubstr(kRefused));
  // A device: refused whatever file system /dev is.
  EXPECT_NE(refusal(open("/dev/zero", O_RDONLY | O_CLOEXEC), 10), "mapped");
  EXPECT_EQ(test::SharedMemoryMappingCount(), mappingsBefore);
}

TEST(SharedMemoryTest, EmptyAndHeapRegions) {
  std::vector<uint8_t> none;
  int fd = SharedMemoryAllocator::DuplicateSealedDescriptor(none.data(), 0);
  ASSERT_GE(fd, 0);
  auto empty = MapReceivedRegion(fd, 0);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->size(), 0u);

  uint8_t* writable = nullptr;
  auto heap = MakeHeapRegion(10, &writable);
  ASSERT_NE(writable, nullptr);
  writable[9] = 3;
  EXPECT_EQ(heap->data()[9], 3);
  EXPECT_EQ(heap->data()[0], 0);
  EXPECT_EQ(heap->size(), 10u);
}

}  // namespace
}  // namespace kx
