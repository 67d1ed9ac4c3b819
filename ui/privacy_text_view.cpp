#include "ui/privacy_text_view.h"

#include <QKeyEvent>
#include <QScrollBar>
#include <QWheelEvent>

namespace kx {

PrivacyTextView::PrivacyTextView(QWidget* parent) : QTextBrowser(parent) {}

void PrivacyTextView::setScrollEnabled(bool enabled) {
  scrollEnabled_ = enabled;
  const Qt::ScrollBarPolicy policy = enabled ? Qt::ScrollBarAsNeeded : Qt::ScrollBarAlwaysOff;
  setVerticalScrollBarPolicy(policy);
  setHorizontalScrollBarPolicy(policy);
  if (!enabled) verticalScrollBar()->setValue(0);
}

void PrivacyTextView::wheelEvent(QWheelEvent* event) {
  if (scrollEnabled_)
    QTextBrowser::wheelEvent(event);
  else
    event->ignore();
}

void PrivacyTextView::keyPressEvent(QKeyEvent* event) {
  if (!scrollEnabled_) {
    switch (event->key()) {
      case Qt::Key_PageUp:
      case Qt::Key_PageDown:
      case Qt::Key_Up:
      case Qt::Key_Down:
      case Qt::Key_Home:
      case Qt::Key_End:
      case Qt::Key_Space:
        event->ignore();
        return;
      default:
        break;
    }
  }
  QTextBrowser::keyPressEvent(event);
}

}  // namespace kx
