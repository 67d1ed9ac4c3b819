#include "support/file_identifier_url.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "kx/log.h"
#include "platform/process/process_info.h"
#include "support/log_file.h"

namespace kx {
namespace {

namespace fs = std::filesystem;

size_t OpenDescriptorCount() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

// Every test runs in a process of its own, so the log holds only its lines.
class FileIdentifierURLTest : public testing::Test {
 protected:
  void SetUp() override {
    setKXLogLevel(7);
    dir_ = UserLibraryDirectory() + "/documents";
    fs::create_directories(dir_);
    std::string error;
    indexer_ = FileIDIndexer::Open(&error);
    ASSERT_TRUE(indexer_) << error;
    dirID_ = Inode(dir_);
    Record(dir_);
    // Opens the log file and the index reader, which stay open for the
    // process, before descriptors are counted.
    KXLOG(7, "warm-up");
    kx_URLFromFileID(std::nullopt, std::nullopt, std::nullopt, 1);
    logged_ = LogText().size();
    descriptors_ = OpenDescriptorCount();
  }

  void TearDown() override { EXPECT_EQ(OpenDescriptorCount(), descriptors_); }

  std::string Write(const std::string& name) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << name;
    return path;
  }

  uint32_t Record(const std::string& path) {
    std::string error;
    const std::optional<uint32_t> documentID = indexer_->RecordFile(path, &error);
    EXPECT_TRUE(documentID) << error;
    return documentID.value_or(0);
  }

  static void SetDocumentID(const std::string& path, const std::string& value) {
    ASSERT_EQ(setxattr(path.c_str(), kDocumentIDAttribute, value.data(), value.size(), 0), 0);
  }

  static uint64_t Inode(const std::string& path) {
    struct stat st;
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_ino;
  }

  static std::string LogText() {
    std::ifstream in(logFilePathWithNumber(LogDirectoryPath(), 0), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // The messages logged since SetUp, without timestamps and source places.
  std::vector<std::string> Logged() const {
    std::istringstream in(LogText().substr(logged_));
    std::vector<std::string> messages;
    for (std::string line; std::getline(in, line);) {
      const size_t bar = line.rfind("| ");
      const size_t place = line.find(' ', bar + 2);  // "file.cpp:42 " at debug level
      messages.push_back(place == std::string::npos ? line : line.substr(place + 1));
    }
    return messages;
  }

  std::string dir_;
  uint64_t dirID_ = 0;
  std::unique_ptr<FileIDIndexer> indexer_;
  size_t logged_ = 0;
  size_t descriptors_ = 0;
};

const char kQuirkLine[] = "fgetattrlist failed; error 9 (Bad file descriptor)";

TEST_F(FileIdentifierURLTest, ResolvesByFileIdentifierAlone) {
  const std::string path = Write("by id.txt");
  const uint32_t documentID = Record(path);
  const std::optional<URL> url = kx_URLFromFileID(Inode(path), std::nullopt, std::nullopt,
                                                  documentID);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), path);
  EXPECT_EQ(*url, URL::FileURLWithPath(path));
  EXPECT_TRUE(Logged().empty());
}

TEST_F(FileIdentifierURLTest, FileIdentifierAbove32BitsOpensByItsLowBits) {
  const std::string path = Write("wide.txt");
  const uint32_t documentID = Record(path);
  const uint64_t wide = (uint64_t{0xABCD} << 32) | Inode(path);
  const std::optional<URL> url = kx_URLFromFileID(wide, std::nullopt, std::nullopt, documentID);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), path);
  EXPECT_EQ(openbyid(wide).valid(), true);
}

TEST_F(FileIdentifierURLTest, MismatchedDocumentIdentifierFallsThroughEveryStep) {
  const std::string path = Write("seven.txt");
  SetDocumentID(path, "7");
  Record(path);

  EXPECT_FALSE(kx_URLFromFileID(Inode(path), std::string("seven.txt"), dirID_, 9));
  EXPECT_EQ(Logged(), (std::vector<std::string>{
                          "document IDs didn't match (7 v/s 9)",
                          kQuirkLine,
                          "GSLibraryResolveDocumentId2 failed; error 2 (No such file or directory)",
                      }));

  // Once 9 belongs to a recorded file, the last step finds that file.
  const std::string nine = Write("nine.txt");
  SetDocumentID(nine, "9");
  Record(nine);
  const std::optional<URL> url = kx_URLFromFileID(Inode(path), std::string("seven.txt"), dirID_, 9);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), nine);
}

TEST_F(FileIdentifierURLTest, ParentAndNameStepKeepsItsBadDescriptorQuirk) {
  const std::string path = Write("child.txt");
  const uint32_t documentID = Record(path);
  const std::optional<URL> url =
      kx_URLFromFileID(std::nullopt, std::string("child.txt"), dirID_, documentID);
  ASSERT_TRUE(url);  // found by document identifier
  EXPECT_EQ(url->path(), path);
  EXPECT_EQ(Logged(), std::vector<std::string>{kQuirkLine});

  // A child that does not open skips the request; an unknown parent is logged.
  EXPECT_TRUE(kx_URLFromFileID(std::nullopt, std::string("absent.txt"), dirID_, documentID));
  EXPECT_TRUE(kx_URLFromFileID(std::nullopt, std::string("child.txt"), 0xFFFFFFF0, documentID));
  EXPECT_EQ(Logged(), (std::vector<std::string>{
                          kQuirkLine,
                          "openbyid_np failed; error 2 (No such file or directory)",
                      }));
}

TEST_F(FileIdentifierURLTest, SafeSavedDocumentResolvesThroughItsDocumentIdentifier) {
  const std::string path = Write("essay.txt");
  const uint64_t oldID = Inode(path);
  const uint32_t documentID = Record(path);
  fs::rename(Write("essay.txt.tmp"), path);
  std::string error;
  ASSERT_EQ(indexer_->RecordSafeSave(path, &error), documentID) << error;
  ASSERT_NE(Inode(path), oldID);

  const std::optional<URL> url = kx_URLFromFileID(oldID, std::string("essay.txt"), dirID_,
                                                  documentID);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), path);
  EXPECT_EQ(Logged(), (std::vector<std::string>{
                          "openbyid_np failed; error 2 (No such file or directory)",
                          kQuirkLine,
                      }));
}

TEST_F(FileIdentifierURLTest, AbsentDocumentIdentifierLogsOnceAndTriesNothing) {
  const std::string path = Write("anonymous.txt");
  Record(path);
  EXPECT_FALSE(kx_URLFromFileID(Inode(path), std::string("anonymous.txt"), dirID_,
                                std::nullopt));
  EXPECT_EQ(Logged(), std::vector<std::string>{"Item missing document ID"});
}

TEST_F(FileIdentifierURLTest, ConcurrentResolutionsShareTheIndex) {
  const std::string path = Write("shared.txt");
  const uint32_t documentID = Record(path);
  std::vector<std::thread> threads;
  std::atomic<int> found{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i)
        found += kx_URLFromFileID(std::nullopt, std::nullopt, std::nullopt, documentID) ==
                 URL::FileURLWithPath(path);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(found, 100);
}

}  // namespace
}  // namespace kx
