// An example search window over KXSearchAgent: a search field, the posted
// sections with their titles and the results' icons, arrows to choose,
// Enter or a click to open a result and send its engagement feedback, and
// the privacy notice from the Help menu.
//
// Everything runs on the Qt main thread, which is also the thread that
// drains the library's main queue: a QSocketNotifier on the queue's eventfd
// wakes Qt's loop when work is pending, so no timer polls and no extra
// thread exists. Icons arrive on the daemon connection's queue and are
// handed to the Qt thread with a queued call.
#pragma once

#include <QMainWindow>
#include <memory>

#include "kx/KXSearchAgent.h"
#include "kx/KXSearchAgentDelegate.h"

class QLineEdit;
class QListWidget;
class QListWidgetItem;
class QSocketNotifier;

namespace kx::window {

class SearchWindow : public QMainWindow {
 public:
  // `launch`: open engaged results with the desktop (off in tests).
  explicit SearchWindow(bool launch, QWidget* parent = nullptr);
  ~SearchWindow() override;

  QLineEdit* searchField() const { return field_; }
  QListWidget* resultList() const { return list_; }
  // The title of the result engaged last; empty before any.
  QString lastEngaged() const { return lastEngaged_; }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  class Delegate;
  void showSections();
  void requestIcon(QListWidgetItem* item, const std::shared_ptr<KXSearchResult>& result,
                   const std::shared_ptr<KXSearchResultSection>& section);
  void moveSelection(int step);
  void engage(QListWidgetItem* item);
  void showPrivacyNotice();

  const bool launch_;
  QLineEdit* field_;
  QListWidget* list_;
  QSocketNotifier* mainQueueNotifier_;
  std::shared_ptr<Delegate> delegate_;
  std::shared_ptr<KXSearchAgent> agent_;
  // The sections on screen, as the agent last posted them.
  KXSearchAgent::SectionList sections_;
  QString lastEngaged_;
};

}  // namespace kx::window
