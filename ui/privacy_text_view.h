// A read-only rich-text view whose scrolling can be switched off entirely:
// no scroll bars, no wheel, no scrolling keys.
#pragma once

#include <QTextBrowser>

namespace kx {

class PrivacyTextView : public QTextBrowser {
 public:
  explicit PrivacyTextView(QWidget* parent = nullptr);

  bool isScrollEnabled() const { return scrollEnabled_; }
  void setScrollEnabled(bool enabled);

 protected:
  void wheelEvent(QWheelEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;

 private:
  bool scrollEnabled_ = true;
};

}  // namespace kx
