// Keeping the index current: the watcher's batches (coalescing, folders that
// come, go and move, lost events) and the indexer's pass over changed paths
// only. The two together are tested end to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "ipc/dpq_testing.h"
#include "searchd/directory_watcher.h"
#include "searchd/indexer.h"
#include "tests/support/test_environment.h"

namespace kx::searchd {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::Not;

struct Batch {
  std::set<std::string> paths;
  bool rescan = false;
};

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

class DirectoryWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = test::TestRoot() + "/watched";
    fs::create_directories(root_ + "/old");
  }
  void start(DirectoryWatcher::Options options = {}) {
    watcher_ = std::make_unique<DirectoryWatcher>(std::vector<std::string>{root_}, options);
    watcher_->start([this](const std::set<std::string>& paths, bool rescan) {
      if (block_) block_->wait();
      batches_.add({paths, rescan});
    });
  }
  // The paths of every batch so far.
  std::set<std::string> seen() {
    std::set<std::string> all;
    for (const Batch& b : batches_.items()) all.insert(b.paths.begin(), b.paths.end());
    return all;
  }
  // True once a batch named `path` (events of one change may be split over
  // two batches, so the test waits for the path, not for a count).
  bool eventuallySeen(const std::string& path) {
    for (auto deadline = std::chrono::steady_clock::now() + test::kTimeout;
         std::chrono::steady_clock::now() < deadline;) {
      if (seen().count(path)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  std::string root_;
  std::optional<std::shared_future<void>> block_;
  test::Inbox<Batch> batches_;
  std::unique_ptr<DirectoryWatcher> watcher_;
};

TEST_F(DirectoryWatcherTest, QuickChangesComeInOneBatch) {
  start({std::chrono::milliseconds(250), std::chrono::milliseconds(5000)});
  for (int i = 0; i < 5; ++i) WriteFile(root_ + "/f" + std::to_string(i), "x");
  fs::remove(root_ + "/f4");
  ASSERT_TRUE(batches_.waitFor(1));
  // Quiet for longer than the delay: nothing more was pending.
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  const std::vector<Batch> batches = batches_.items();
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_FALSE(batches[0].rescan);
  EXPECT_EQ(batches[0].paths, (std::set<std::string>{root_ + "/f0", root_ + "/f1", root_ + "/f2",
                                                      root_ + "/f3", root_ + "/f4"}));
}

TEST_F(DirectoryWatcherTest, AWriterWithoutPauseDoesNotHoldChangesBack) {
  start({std::chrono::milliseconds(100), std::chrono::milliseconds(300)});
  // An event every 50 ms never leaves 100 ms of quiet; the batch still goes
  // out after at most 300 ms.
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 30 && batches_.size() == 0; ++i) {
    WriteFile(root_ + "/log", std::to_string(i));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_EQ(batches_.size(), 1u);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
}

TEST_F(DirectoryWatcherTest, FoldersThatAppearOrMoveAreWatchedUnderTheirNewNames) {
  start({std::chrono::milliseconds(30), std::chrono::milliseconds(1000)});
  fs::create_directories(root_ + "/new/deeper");
  WriteFile(root_ + "/new/deeper/early", "written before the watch may exist");
  EXPECT_TRUE(eventuallySeen(root_ + "/new"));

  // The new folder is watched: a later change inside is reported by path.
  WriteFile(root_ + "/new/deeper/later", "x");
  EXPECT_TRUE(eventuallySeen(root_ + "/new/deeper/later"));

  // Moved: old and new name reported, later changes under the new name.
  fs::rename(root_ + "/old", root_ + "/renamed");
  EXPECT_TRUE(eventuallySeen(root_ + "/old"));
  EXPECT_TRUE(eventuallySeen(root_ + "/renamed"));
  WriteFile(root_ + "/renamed/inside", "x");
  EXPECT_TRUE(eventuallySeen(root_ + "/renamed/inside"));
  EXPECT_THAT(seen(), Not(Contains(root_ + "/old/inside")));
}

TEST_F(DirectoryWatcherTest, LostEventsMakeTheNextBatchARescan) {
  std::promise<void> release;
  block_ = release.get_future().share();
  start({std::chrono::milliseconds(20), std::chrono::milliseconds(100)});
  WriteFile(root_ + "/first", "x");
  // The handler of the first batch blocks while far more events than the
  // kernel queues (16384 by default) pile up: three per file.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  int queued = 16384;
  if (std::ifstream limit("/proc/sys/fs/inotify/max_queued_events"); limit) limit >> queued;
  for (int i = 0; i < queued / 3 + 100; ++i) {
    const std::string path = root_ + "/burst" + std::to_string(i);
    close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    unlink(path.c_str());
  }
  release.set_value();
  ASSERT_TRUE(batches_.waitFor(2));
  EXPECT_TRUE(batches_.items()[1].rescan);
  // Watching goes on after starting over.
  WriteFile(root_ + "/after", "x");
  EXPECT_TRUE(eventuallySeen(root_ + "/after"));
}

// The indexer over a notes folder; every pass is checked by what it read.
class ChangedPathsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = test::TestRoot() + "/data";
    fs::create_directories(root_ + "/notes/trip");
    WriteFile(root_ + "/notes/a.md", "# Apple\nred");
    WriteFile(root_ + "/notes/trip/b.md", "# Banana\nyellow");
    WriteFile(root_ + "/notes/trip/c.md", "# Cherry\ndark");
    index_ = std::make_unique<Index>(test::TestRoot() + "/changes.db", false);
    indexer_ = std::make_unique<Indexer>(*index_, MakeSources(SourceLocations::UnderRoot(root_)));
    ASSERT_EQ(indexer_->update().filesRead, 3u);
  }
  size_t found(const std::string& text) {
    return index_->search(PlanQuery(text), SearchRequest::InDomain(kDomainNotes)).size();
  }

  std::string root_;
  std::unique_ptr<Index> index_;
  std::unique_ptr<Indexer> indexer_;
};

TEST_F(ChangedPathsTest, ReadsOnlyWhatChangedBelowThePaths) {
  // Unchanged stamps: nothing read, also for a fresh indexer (a restart).
  EXPECT_EQ(Indexer(*index_, MakeSources(SourceLocations::UnderRoot(root_))).update().filesRead, 0u);
  EXPECT_EQ(indexer_->update({root_ + "/notes"}).filesRead, 0u);

  WriteFile(root_ + "/notes/a.md", "# Apricot\norange");
  WriteFile(root_ + "/notes/trip/b.md", "# Blueberry\nblue");  // changed, but not named below
  IndexerStats one = indexer_->update({root_ + "/notes/a.md"});
  EXPECT_EQ(one.filesSeen, 1u);
  EXPECT_EQ(one.filesRead, 1u);
  EXPECT_EQ(found("apricot"), 1u);
  EXPECT_EQ(found("blueberry"), 0u);

  // A folder moved away: everything below its old name goes, everything
  // below the new one comes.
  fs::rename(root_ + "/notes/trip", root_ + "/notes/journey");
  IndexerStats moved = indexer_->update({root_ + "/notes/trip", root_ + "/notes/journey"});
  EXPECT_EQ(moved.filesRemoved, 2u);
  EXPECT_EQ(moved.filesRead, 2u);
  EXPECT_EQ(found("blueberry"), 1u);
  EXPECT_EQ(found("cherry"), 1u);

  // The root itself removed.
  fs::remove_all(root_ + "/notes");
  EXPECT_EQ(indexer_->update({root_ + "/notes"}).filesRemoved, 3u);
  EXPECT_EQ(index_->itemCount(), 0);
}

}  // namespace
}  // namespace kx::searchd
