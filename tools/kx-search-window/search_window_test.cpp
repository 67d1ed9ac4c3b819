// The search window under Qt's offscreen platform, against kx-searchd over
// the sample data in a private directory tree.
#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QListWidget>
#include <QLineEdit>
#include <QTemporaryDir>
#include <QTest>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "kx/KXDaemonConnection.h"
#include "tools/kx-search-window/search_window.h"

namespace kx::window {
namespace {

QTemporaryDir* g_root = nullptr;

bool WaitUntil(const std::function<bool()>& done) {
  for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
       std::chrono::steady_clock::now() < deadline;) {
    if (done()) return true;
    QTest::qWait(10);
  }
  return done();
}

// A child process stopped (SIGTERM) and reaped when it goes out of scope.
// Not QProcess: it starts children with a clone that shares this process's
// memory and runs Qt code in the child before exec, which corrupts
// ThreadSanitizer's view of the main thread; posix_spawn runs only libc there.
class Child {
 public:
  explicit Child(std::vector<std::string> argv) {
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    if (posix_spawn(&pid_, args[0], nullptr, nullptr, args.data(), environ) != 0) pid_ = -1;
  }
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  bool started() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
};

QListWidgetItem* RowStartingWith(QListWidget* list, const QString& text) {
  for (int i = 0; i < list->count(); ++i)
    if (list->item(i)->text().startsWith(text)) return list->item(i);
  return nullptr;
}

TEST(SearchWindowTest, TypingShowsSectionsWithIconsAndEnterEngages) {
  const QString root = g_root->path();
  const QString tool = QStringLiteral(KX_BUILD_DIR) + "/tools/";
  const QString name = QString::fromLatin1(KXDaemonConnection::kDefaultDaemonName.data(),
                                           KXDaemonConnection::kDefaultDaemonName.size());
  // Stopped (with its daemon) however the test ends.
  const std::string tools = tool.toStdString();
  Child launcher({tools + "kx-launch/kx-launch", "--name", name.toStdString(), "--",
                  tools + "kx-searchd/kx-searchd", "--service", name.toStdString(),
                  "--data-root", KX_EXAMPLES_DATA, "--index", (root + "/index").toStdString()});
  ASSERT_TRUE(launcher.started());
  ASSERT_TRUE(WaitUntil([&] { return QFile::exists(qEnvironmentVariable("KX_SERVICE_DIR") + "/" + name); }));

  SearchWindow window(false);
  window.show();
  QTest::keyClicks(window.searchField(), "fire");
  QListWidget* list = window.resultList();
  ASSERT_TRUE(WaitUntil([&] { return RowStartingWith(list, "Firefly") != nullptr; }));
  // A section title above the rows, and the row chosen for Enter.
  EXPECT_FALSE(list->item(0)->flags() & Qt::ItemIsSelectable);
  EXPECT_TRUE(list->currentItem()->text().startsWith("Firefly"));
  EXPECT_TRUE(WaitUntil([&] { return !RowStartingWith(list, "Firefly")->icon().isNull(); }));
  window.grab().save(KX_SCREENSHOT_PATH);

  QTest::keyClick(window.searchField(), Qt::Key_Return);
  EXPECT_EQ(window.lastEngaged(), "Firefly");
  // The daemon writes its log after it took the record.
  EXPECT_TRUE(WaitUntil([&] {
    QFile log(root + "/state/kxsearch/feedback.jsonl");
    return log.open(QIODevice::ReadOnly) && log.readAll().contains("KXFeedbackEngagement");
  }));
}

}  // namespace
}  // namespace kx::window

int main(int argc, char** argv) {
  // A private tree for everything the library and the daemon write.
  QTemporaryDir root;
  kx::window::g_root = &root;
  for (const char* dir : {"home", "run", "config", "cache", "state", "data"})
    QDir(root.path()).mkpath(dir);
  QFile::setPermissions(root.path() + "/run", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
  const QByteArray base = root.path().toUtf8();
  setenv("HOME", base + "/home", 1);
  setenv("XDG_RUNTIME_DIR", base + "/run", 1);
  setenv("XDG_CONFIG_HOME", base + "/config", 1);
  setenv("XDG_CACHE_HOME", base + "/cache", 1);
  setenv("XDG_STATE_HOME", base + "/state", 1);
  setenv("XDG_DATA_HOME", base + "/data", 1);
  setenv("KX_SERVICE_DIR", base + "/run/kx-services", 1);
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  QApplication application(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
