// Runs each snippet of docs/main-queue.md: work queued on the main queue
// from another thread must run inside that snippet's event loop.
#include <glib-unix.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <thread>

#include "kx/queue.h"

guint AttachSearchMainQueueToGLib();
QSocketNotifier* AttachSearchMainQueueToQt(QObject* owner);
bool AddSearchMainQueueToEpoll(int epollFd);
bool HandleSearchMainQueueEvent(const epoll_event& event);

namespace {

// Queues `work` on the main queue from a thread of its own, after the loop
// under test has started waiting.
void PostFromAnotherThread(std::function<void()> work) {
  std::thread([work = std::move(work)] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    kx::Queue::Main()->async(work);
  }).detach();
}

TEST(DocsSnippetsTest, GLib) {
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  const guint source = AttachSearchMainQueueToGLib();
  bool ran = false;
  PostFromAnotherThread([&] {
    EXPECT_TRUE(kx::Queue::Main()->isCurrent());
    ran = true;
    g_main_loop_quit(loop);
  });
  g_timeout_add_seconds(10, [](gpointer l) {
    g_main_loop_quit(static_cast<GMainLoop*>(l));
    return G_SOURCE_REMOVE;
  }, loop);
  g_main_loop_run(loop);
  EXPECT_TRUE(ran);
  g_source_remove(source);
  g_main_loop_unref(loop);
}

TEST(DocsSnippetsTest, Qt) {
  int argc = 1;
  char name[] = "docs_snippets_tests";
  char* argv[] = {name, nullptr};
  QCoreApplication app(argc, argv);
  AttachSearchMainQueueToQt(&app);
  bool ran = false;
  PostFromAnotherThread([&] {
    ran = true;
    QCoreApplication::quit();
  });
  QTimer::singleShot(10000, &app, &QCoreApplication::quit);
  app.exec();
  EXPECT_TRUE(ran);
}

TEST(DocsSnippetsTest, Epoll) {
  const int epollFd = epoll_create1(EPOLL_CLOEXEC);
  ASSERT_TRUE(AddSearchMainQueueToEpoll(epollFd));
  std::atomic<bool> ran{false};
  PostFromAnotherThread([&] { ran = true; });
  for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
       !ran && std::chrono::steady_clock::now() < deadline;) {
    epoll_event events[4];
    const int n = epoll_wait(epollFd, events, 4, 100);
    for (int i = 0; i < n; ++i) EXPECT_TRUE(HandleSearchMainQueueEvent(events[i]));
  }
  EXPECT_TRUE(ran);
  close(epollFd);
}

}  // namespace
