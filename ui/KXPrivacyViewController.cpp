#include "kx/KXPrivacyViewController.h"

#include <QApplication>
#include <QFontDatabase>
#include <QScreen>
#include <QShowEvent>
#include <QVBoxLayout>

#include "kx/localized_strings.h"
#include "ui/link_detection.h"
#include "ui/privacy_text_view.h"

namespace {

constexpr char kStringTable[] = "Search";
constexpr double kTallPhoneScreenHeight = 480;
constexpr int kTextMargin = 12;  // the text does not touch the dialog's edges

}  // namespace

KXPrivacyViewController::KXPrivacyViewController(QWidget* parent) : QDialog(parent) {
  setWindowModality(Qt::WindowModal);
}

KXPrivacyViewController::~KXPrivacyViewController() = default;

int KXPrivacyViewController::FontSizeFor(kx::DeviceKind kind, std::optional<double> screenHeight) {
  switch (kind) {
    case kx::DeviceKind::Tablet:
      return 17;
    case kx::DeviceKind::Phone:
      return screenHeight && *screenHeight > kTallPhoneScreenHeight ? 16 : 15;
    case kx::DeviceKind::Other:
      break;
  }
  return 15;
}

std::optional<double> KXPrivacyViewController::mainScreenHeight() const {
  const QScreen* screen = QGuiApplication::primaryScreen();
  if (!screen) return std::nullopt;
  return screen->geometry().height();
}

QTextBrowser* KXPrivacyViewController::view() {
  if (!isViewLoaded()) loadView();
  return textView_;
}

void KXPrivacyViewController::loadView() {
  setWindowTitle(QString::fromStdString(kx::LibraryLocalizedString("ABOUT_PRIVACY_TITLE", kStringTable)));

  auto* textView = new kx::PrivacyTextView(this);
  textView->setReadOnly(true);
  textView->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard |
                                    Qt::LinksAccessibleByMouse | Qt::LinksAccessibleByKeyboard);
  textView->setOpenExternalLinks(true);
  textView->setScrollEnabled(false);

  QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
  font.setPixelSize(FontSizeFor(kx::CurrentDeviceKind(), mainScreenHeight()));
  textView->setFont(font);
  textView->document()->setDefaultFont(font);
  textView->document()->setDocumentMargin(kTextMargin);

  const QString text = QString::fromStdString(kx::LibraryLocalizedString("PRIVACY_TEXT", kStringTable));
  textView->setHtml(kx::HTMLWithDetectedLinks(text));

  // The text view fills the dialog: it is the controller's whole view.
  delete layout();
  auto* fill = new QVBoxLayout(this);
  fill->setContentsMargins(0, 0, 0, 0);
  fill->addWidget(textView);
  textView_ = textView;
}

void KXPrivacyViewController::viewDidAppear(bool) {
  if (textView_) textView_->setScrollEnabled(true);
}

void KXPrivacyViewController::showEvent(QShowEvent* event) {
  if (!isViewLoaded()) loadView();
  QDialog::showEvent(event);
  if (event->spontaneous()) return;
  // Queued so that it runs after the window is on screen and laid out.
  QMetaObject::invokeMethod(
      this, [this] { viewDidAppear(false); }, Qt::QueuedConnection);
}
