#include "tools/kx-search-window/search_window.h"

#include <QAction>
#include <QDesktopServices>
#include <QKeyEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QPixmap>
#include <QPointer>
#include <QSocketNotifier>
#include <QUrl>
#include <QVBoxLayout>

#include "kx/KXPrivacyViewController.h"
#include "kx/main_loop.h"
#include "tools/kx-search/engagement.h"
#include "tools/kx-search/section_output.h"

namespace kx::window {
namespace {

constexpr int kIconSize = 32;
// The 1-based position across sections (the numbering the engagement
// uses) of a result row; 0 on a section title row.
constexpr int kPositionRole = Qt::UserRole + 1;

}  // namespace

// Forwards the agent's posts (main queue, which runs on the Qt thread) to
// the window while it exists.
class SearchWindow::Delegate : public KXSearchAgentDelegate {
 public:
  explicit Delegate(SearchWindow* window) : window_(window) {}
  bool respondsTo(Operation) const override { return true; }
  void searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>&) override { forward(); }
  void searchAgentClearedResults(const std::shared_ptr<KXSearchAgent>&) override { forward(); }

 private:
  void forward() {
    if (window_) window_->showSections();
  }
  QPointer<SearchWindow> window_;
};

SearchWindow::SearchWindow(bool launch, QWidget* parent)
    : QMainWindow(parent),
      launch_(launch),
      field_(new QLineEdit),
      list_(new QListWidget),
      mainQueueNotifier_(new QSocketNotifier(main_loop::fd(), QSocketNotifier::Read, this)),
      delegate_(std::make_shared<Delegate>(this)),
      agent_(KXSearchAgent::init()) {
  setWindowTitle(tr("Search"));
  field_->setPlaceholderText(tr("Search"));
  field_->setClearButtonEnabled(true);
  list_->setIconSize(QSize(kIconSize, kIconSize));
  auto* central = new QWidget;
  auto* layout = new QVBoxLayout(central);
  layout->addWidget(field_);
  layout->addWidget(list_);
  setCentralWidget(central);
  resize(520, 480);

  QMenu* help = menuBar()->addMenu(tr("&Help"));
  connect(help->addAction(tr("About Search && Privacy…")), &QAction::triggered, this,
          &SearchWindow::showPrivacyNotice);

  connect(mainQueueNotifier_, &QSocketNotifier::activated, this, [] { main_loop::drain(); });
  connect(field_, &QLineEdit::textEdited, this, [this](const QString& text) {
    agent_->setQueryString(text.toStdString(), std::nullopt, 0, false);
  });
  connect(field_, &QLineEdit::returnPressed, this, [this] { engage(list_->currentItem()); });
  connect(list_, &QListWidget::itemActivated, this, &SearchWindow::engage);
  field_->installEventFilter(this);
  agent_->setDelegate(delegate_);
}

SearchWindow::~SearchWindow() { agent_->setDelegate(std::weak_ptr<KXSearchAgentDelegate>()); }

bool SearchWindow::eventFilter(QObject* watched, QEvent* event) {
  // The arrows choose a result while typing goes on in the field.
  if (watched == field_ && event->type() == QEvent::KeyPress) {
    const int key = static_cast<QKeyEvent*>(event)->key();
    if (key == Qt::Key_Down || key == Qt::Key_Up) {
      moveSelection(key == Qt::Key_Down ? 1 : -1);
      return true;
    }
  }
  return QMainWindow::eventFilter(watched, event);
}

void SearchWindow::showSections() {
  // The agent's list may be read only on its main queue: keep the copy
  // this post shows.
  sections_ = agent_->sections();
  list_->clear();
  int position = 0;
  QListWidgetItem* first = nullptr;
  for (const auto& section : sections_) {
    const auto results = section->results();
    if (results.empty()) continue;
    auto* title = new QListWidgetItem(QString::fromStdString(cli::SectionTitle(*section)), list_);
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    title->setFlags(Qt::ItemIsEnabled);
    for (const auto& result : results) {
      QString text = QString::fromStdString(result->title().value_or(""));
      if (const auto& subtitle = result->subtitle(); subtitle && !subtitle->empty())
        text += QStringLiteral(" — ") + QString::fromStdString(*subtitle);
      auto* row = new QListWidgetItem(text, list_);
      row->setData(kPositionRole, ++position);
      requestIcon(row, result, section);
      if (!first) first = row;
    }
  }
  if (first) list_->setCurrentItem(first);
}

void SearchWindow::requestIcon(QListWidgetItem* item, const std::shared_ptr<KXSearchResult>& result,
                               const std::shared_ptr<KXSearchResultSection>& section) {
  // The list may have been rebuilt when the image comes back: the reply
  // finds its row again by position and title.
  QPointer<QListWidget> list = list_;
  const int position = item->data(kPositionRole).toInt();
  const QString text = item->text();
  agent_->retrieveImageDataForResult(
      *result, *section, kx::Size{kIconSize, kIconSize},
      [list, position, text](std::optional<std::vector<uint8_t>> data) {
        if (!data || data->empty()) return;
        QMetaObject::invokeMethod(list, [list, position, text, bytes = std::move(*data)] {
          if (!list) return;
          QPixmap pixmap;
          if (!pixmap.loadFromData(bytes.data(), static_cast<uint>(bytes.size()))) return;
          for (int i = 0; i < list->count(); ++i) {
            QListWidgetItem* row = list->item(i);
            if (row->data(kPositionRole).toInt() == position && row->text() == text)
              row->setIcon(QIcon(pixmap));
          }
        }, Qt::QueuedConnection);
      });
}

void SearchWindow::moveSelection(int step) {
  for (int i = list_->currentRow() + step; i >= 0 && i < list_->count(); i += step) {
    if (list_->item(i)->data(kPositionRole).toInt() > 0) {
      list_->setCurrentRow(i);
      return;
    }
  }
}

void SearchWindow::engage(QListWidgetItem* item) {
  if (!item) return;
  const int position = item->data(kPositionRole).toInt();
  const auto chosen = cli::ResultAt(sections_, static_cast<size_t>(position));
  if (position <= 0 || !chosen) return;
  cli::SendEngagement(*chosen, field_->text().toStdString(), std::nullopt, agent_->fbq());
  lastEngaged_ = QString::fromStdString(chosen->result->title().value_or(""));
  if (launch_ && chosen->result->url())
    QDesktopServices::openUrl(QUrl(QString::fromStdString(*chosen->result->url())));
}

void SearchWindow::showPrivacyNotice() {
  auto* notice = new KXPrivacyViewController(this);
  notice->setAttribute(Qt::WA_DeleteOnClose);
  notice->show();
}

}  // namespace kx::window
