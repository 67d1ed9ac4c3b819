#include "platform/files/file_id_service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/process/process_info.h"

namespace kx {
namespace {

namespace fs = std::filesystem;

uint32_t GetUInt32(const uint8_t* at) {
  return uint32_t{at[0]} | uint32_t{at[1]} << 8 | uint32_t{at[2]} << 16 | uint32_t{at[3]} << 24;
}

// Files live below the user library directory, on the device DeviceID()
// names, and are recorded by an indexer of their own.
class FileIDServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = UserLibraryDirectory() + "/documents";
    fs::create_directories(dir_);
    std::string error;
    indexer_ = FileIDIndexer::Open(&error);
    ASSERT_TRUE(indexer_) << error;
  }

  std::string Write(const std::string& name, const std::string& contents) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
    return path;
  }

  uint32_t Record(const std::string& path) {
    std::string error;
    const std::optional<uint32_t> documentID = indexer_->RecordFile(path, &error);
    EXPECT_TRUE(documentID) << error;
    return documentID.value_or(0);
  }

  static uint64_t Inode(const std::string& path) {
    struct stat st;
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st.st_ino;
  }

  static std::string Attribute(const std::string& path) {
    char value[32];
    const ssize_t length = getxattr(path.c_str(), kDocumentIDAttribute, value, sizeof value);
    return length < 0 ? std::string() : std::string(value, length);
  }

  static FileDescriptor Open(uint64_t inode) {
    return OpenByID(DeviceID(), static_cast<uint32_t>(inode), O_RDONLY | O_NOFOLLOW);
  }

  std::string dir_;
  std::unique_ptr<FileIDIndexer> indexer_;
};

TEST_F(FileIDServiceTest, RecordedFileOpensByInodeAndReportsItsAttributes) {
  const std::string path = Write("report.txt", "x");
  const uint32_t documentID = Record(path);
  ASSERT_NE(documentID, 0u);
  EXPECT_EQ(Attribute(path), std::to_string(documentID));
  // Recording again keeps the identifier; another file gets another one.
  EXPECT_EQ(Record(path), documentID);
  EXPECT_NE(Record(Write("other.txt", "y")), documentID);
  EXPECT_EQ(ResolveDocumentID(DeviceID(), documentID), Inode(path));

  const FileDescriptor fd = Open(Inode(path));
  ASSERT_TRUE(fd.valid()) << std::strerror(errno);
  uint8_t reply[1040];
  const AttributeList request{kAttributeBitmapCount,
                              kCommonAttributeDocumentID | kCommonAttributeFullPath};
  ASSERT_EQ(GetAttributeList(fd, request, reply, sizeof reply,
                             kAttributeOptionNoFollow | kAttributeOptionExtendedCommon),
            0)
      << std::strerror(errno);
  EXPECT_EQ(GetUInt32(reply), (16 + path.size() + 1 + 3) / 4 * 4);
  EXPECT_EQ(GetUInt32(reply + 4), documentID);
  const uint32_t offset = GetUInt32(reply + 8);
  const uint32_t length = GetUInt32(reply + 12);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(reply) + 8 + offset, length), path);
  EXPECT_EQ(reply[8 + offset + length], 0);
}

TEST_F(FileIDServiceTest, StaleIndexEntryNeverOpensAnotherFile) {
  const std::string path = Write("moving.txt", "x");
  const uint64_t inode = Inode(path);
  Record(path);
  // Moved without telling the indexer, and another file took the old name.
  fs::rename(path, dir_ + "/moved.txt");
  Write("moving.txt", "impostor");
  ASSERT_NE(Inode(path), inode);
  errno = 0;
  EXPECT_FALSE(Open(inode).valid());
  EXPECT_EQ(errno, ENOENT);
  // Unknown numbers and other devices fail the same way.
  EXPECT_FALSE(Open(inode + 1000003).valid());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(OpenByID(DeviceID() + 1, static_cast<uint32_t>(inode), O_RDONLY).valid());
  EXPECT_EQ(errno, ENOENT);
  // Re-recording the moved file makes it reachable again.
  Record(dir_ + "/moved.txt");
  EXPECT_TRUE(Open(inode).valid());
}

TEST_F(FileIDServiceTest, SafeSaveCarriesTheDocumentIdentifierToTheNewInode) {
  const std::string path = Write("letter.txt", "draft");
  const uint64_t oldInode = Inode(path);
  const uint32_t documentID = Record(path);
  const std::string temporary = Write("letter.txt.sb-tmp", "final");
  fs::rename(temporary, path);
  const uint64_t newInode = Inode(path);
  ASSERT_NE(newInode, oldInode);
  EXPECT_EQ(Attribute(path), "");

  std::string error;
  EXPECT_EQ(indexer_->RecordSafeSave(path, &error), documentID) << error;
  EXPECT_EQ(Attribute(path), std::to_string(documentID));
  EXPECT_EQ(ResolveDocumentID(DeviceID(), documentID), newInode);
  EXPECT_TRUE(Open(newInode).valid());
  EXPECT_FALSE(Open(oldInode).valid());

  // A path the index has never seen simply gets recorded.
  const std::string fresh = Write("fresh.txt", "x");
  const std::optional<uint32_t> freshID = indexer_->RecordSafeSave(fresh, &error);
  ASSERT_TRUE(freshID) << error;
  EXPECT_NE(*freshID, documentID);
  EXPECT_EQ(Attribute(fresh), std::to_string(*freshID));
}

TEST_F(FileIDServiceTest, CopyCarryingTheAttributeGetsAnIdentifierOfItsOwn) {
  const std::string original = Write("original.txt", "x");
  const uint32_t documentID = Record(original);
  const std::string copy = Write("copy.txt", "x");
  const std::string value = std::to_string(documentID);
  ASSERT_EQ(setxattr(copy.c_str(), kDocumentIDAttribute, value.data(), value.size(), 0), 0);

  const uint32_t copyID = Record(copy);
  EXPECT_NE(copyID, documentID);
  EXPECT_EQ(Attribute(copy), std::to_string(copyID));
  EXPECT_EQ(ResolveDocumentID(DeviceID(), documentID), Inode(original));

  // Once the original is gone, a file carrying its identifier takes it over.
  fs::remove(original);
  const std::string restored = Write("restored.txt", "x");
  ASSERT_EQ(setxattr(restored.c_str(), kDocumentIDAttribute, value.data(), value.size(), 0), 0);
  EXPECT_EQ(Record(restored), documentID);
  EXPECT_EQ(ResolveDocumentID(DeviceID(), documentID), Inode(restored));
}

TEST_F(FileIDServiceTest, AttributeRequestFailures) {
  const AttributeList both{kAttributeBitmapCount,
                           kCommonAttributeDocumentID | kCommonAttributeFullPath};
  uint8_t reply[1040];
  const std::string path = Write("plain.txt", "x");
  FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(fd.valid());
  ASSERT_EQ(GetAttributeList(fd, both, reply, sizeof reply, 0), 0);
  EXPECT_EQ(GetUInt32(reply + 4), 0u);  // no attribute: document identifier 0

  const auto expectFailure = [&](const AttributeList& request, size_t size, uint32_t options,
                                 int expected) {
    errno = 0;
    EXPECT_EQ(GetAttributeList(fd, request, reply, size, options), -1);
    EXPECT_EQ(errno, expected) << std::strerror(errno);
  };
  expectFailure({4, kCommonAttributeDocumentID}, sizeof reply, 0, EINVAL);
  expectFailure({kAttributeBitmapCount, 0x1}, sizeof reply, 0, EINVAL);
  expectFailure(both, sizeof reply, 0x4, EINVAL);
  expectFailure({kAttributeBitmapCount, kCommonAttributeDocumentID}, 7, 0, ERANGE);
  expectFailure(both, 16 + path.size(), 0, ENAMETOOLONG);  // no room for the terminator
  for (const char* damaged : {"abc", "4294967296", " 7"}) {
    ASSERT_EQ(fsetxattr(fd.get(), kDocumentIDAttribute, damaged, std::strlen(damaged), 0), 0);
    expectFailure(both, sizeof reply, 0, EINVAL);
  }
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(fsetxattr(fd.get(), kDocumentIDAttribute, "4", 1, 0), 0);
  expectFailure(both, sizeof reply, 0, ENOENT);  // an unlinked file has no path
}

TEST_F(FileIDServiceTest, ClosedDescriptorFailsWithoutTouchingItsReusedNumber) {
  const std::string first = Write("first.txt", "x");
  const std::string second = Write("second.txt", "y");
  ASSERT_EQ(setxattr(second.c_str(), kDocumentIDAttribute, "5", 1, 0), 0);
  FileDescriptor closed(open(first.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(closed.valid());
  const int number = closed.get();
  closed.Close();
  closed.Close();  // idempotent
  // The lowest free number is handed out again at once.
  const FileDescriptor reuser(open(second.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(reuser.get(), number);

  uint8_t reply[1040];
  errno = 0;
  EXPECT_EQ(GetAttributeList(closed, {kAttributeBitmapCount, kCommonAttributeDocumentID}, reply,
                             sizeof reply, 0),
            -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(OpenAt(closed, "first.txt", O_RDONLY).valid());
  EXPECT_EQ(errno, EBADF);
  EXPECT_TRUE(reuser.valid());
}

TEST(FileIDServiceDeviceTest, DeviceIsTheUserLibraryVolume) {
  struct stat st;
  ASSERT_EQ(stat(UserLibraryDirectory().c_str(), &st), 0);
  EXPECT_EQ(DeviceID(), DeviceNumber32(st.st_dev));
}

TEST(FileIDServiceDeviceDeathTest, UnreadableLibraryDirectoryIsFatal) {
  // Runs in a re-executed child in which nothing has read the directory
  // yet; a regular file in the way makes it impossible to create.
  EXPECT_DEATH(
      {
        const std::string blocker = std::string(std::getenv("TMPDIR")) + "/blocker";
        std::ofstream(blocker) << "x";
        setenv("XDG_DATA_HOME", (blocker + "/share").c_str(), 1);
        DeviceID();
      },
      "stat\\(path, &st\\) == 0 && \"could not get device ID\"");
}

}  // namespace
}  // namespace kx
