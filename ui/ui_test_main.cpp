// Test main of the user-interface library: one QApplication per test
// process, on Qt's offscreen platform unless the environment names another.
#include <gtest/gtest.h>

#include <QApplication>
#include <cstdlib>

#if defined(__SANITIZE_THREAD__)
// Qt is not built with ThreadSanitizer, so its internal synchronisation
// (atomics in its image-conversion thread pool, implicitly shared images) is
// invisible and TSan reports races between Qt's own pooled threads and the
// main thread. A report is dropped when a stack passes through Qt; the code
// under test runs on the main thread only, so none of its races can hide.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libQt6Core.so\n"
         "race:libQt6Gui.so\n"
         "race:libQt6Widgets.so\n";
}
#endif

int main(int argc, char** argv) {
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  QApplication application(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
