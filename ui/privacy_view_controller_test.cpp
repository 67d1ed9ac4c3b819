#include "kx/KXPrivacyViewController.h"

#include <gtest/gtest.h>

#include <QDesktopServices>
#include <QScrollBar>
#include <QTest>
#include <QTextBlock>
#include <QTextBrowser>
#include <cstdlib>

namespace {

// Stands in for the desktop's URL opener.
class OpenedLinks : public QObject {
  Q_OBJECT
 public:
  QList<QUrl> urls;
  Q_INVOKABLE void open(const QUrl& url) { urls.append(url); }
};

class ScreenOfHeight : public KXPrivacyViewController {
 public:
  explicit ScreenOfHeight(std::optional<double> height) : height_(height) {}

 protected:
  std::optional<double> mainScreenHeight() const override { return height_; }

 private:
  std::optional<double> height_;
};

class PrivacyViewTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("LC_ALL", "C", 1);
    setenv("KX_DEVICE_KIND", "other", 1);
  }
};

TEST_F(PrivacyViewTest, ShowsTheLocalisedTitleAndAReadOnlyTextWhoseLinksOpen) {
  KXPrivacyViewController controller;
  EXPECT_FALSE(controller.isViewLoaded());
  QTextBrowser* text = controller.view();
  EXPECT_EQ(controller.windowTitle(), "Search & Privacy");
  EXPECT_EQ(controller.windowModality(), Qt::WindowModal);
  EXPECT_TRUE(text->isReadOnly());
  EXPECT_TRUE(text->textInteractionFlags() & Qt::TextSelectableByMouse);
  EXPECT_TRUE(text->toPlainText().startsWith("Search looks through the content"));

  OpenedLinks opened;
  QDesktopServices::setUrlHandler("https", &opened, "open");
  controller.resize(420, 560);
  controller.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&controller));
  const int at = text->toPlainText().indexOf("https://");
  ASSERT_GE(at, 0);
  QTextCursor cursor(text->document());
  cursor.setPosition(at + 3);
  text->setTextCursor(cursor);
  text->ensureCursorVisible();
  const QPoint onLink = text->cursorRect(cursor).center();
  QTest::mouseClick(text->viewport(), Qt::LeftButton, {}, onLink);
  QDesktopServices::unsetUrlHandler("https");
  ASSERT_EQ(opened.urls.size(), 1);
  EXPECT_EQ(opened.urls[0], QUrl("https://www.orvex.com/legal/privacy/"));

  // Typing changes nothing.
  const QString before = text->toPlainText();
  QTest::keyClicks(text, "typed");
  EXPECT_EQ(text->toPlainText(), before);
}

TEST_F(PrivacyViewTest, GermanTitle) {
  setenv("LC_ALL", "de_DE.UTF-8", 1);
  KXPrivacyViewController controller;
  controller.view();
  EXPECT_EQ(controller.windowTitle(), "Suche und Datenschutz");
}

TEST_F(PrivacyViewTest, FontSizeFollowsDeviceKindAndScreenHeight) {
  const struct {
    const char* kind;
    std::optional<double> height;
    int size;
  } cases[] = {
      {"handset", 480, 15}, {"handset", 568, 16},  {"handset", std::nullopt, 15},
      {"tablet", 480, 17},  {"other", 1080, 15},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.kind) + " " + std::to_string(c.height.value_or(-1)));
    setenv("KX_DEVICE_KIND", c.kind, 1);
    ScreenOfHeight controller(c.height);
    EXPECT_EQ(controller.view()->font().pixelSize(), c.size);
  }
}

TEST_F(PrivacyViewTest, ScrollingStaysOffUntilTheViewHasAppeared) {
  setenv("KX_DEVICE_KIND", "tablet", 1);
  KXPrivacyViewController controller;
  QTextBrowser* text = controller.view();
  controller.resize(240, 160);  // far too small for the text
  EXPECT_EQ(text->verticalScrollBarPolicy(), Qt::ScrollBarAlwaysOff);
  QTest::keyClick(text, Qt::Key_PageDown);
  EXPECT_EQ(text->verticalScrollBar()->value(), 0);

  controller.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&controller));
  QCoreApplication::processEvents();
  EXPECT_EQ(text->verticalScrollBarPolicy(), Qt::ScrollBarAsNeeded);
  QTest::keyClick(text, Qt::Key_PageDown);
  EXPECT_GT(text->verticalScrollBar()->value(), 0);
}

TEST_F(PrivacyViewTest, Screenshot) {
  setenv("KX_DEVICE_KIND", "tablet", 1);
  KXPrivacyViewController controller;
  controller.resize(460, 420);
  controller.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&controller));
  QCoreApplication::processEvents();
  const QImage image = controller.grab().toImage();
  ASSERT_FALSE(image.isNull());
  // Text was drawn: a fair share of pixels differ from the background.
  const QRgb background = image.pixel(image.width() - 2, image.height() - 2);
  int inked = 0;
  for (int y = 0; y < image.height(); ++y)
    for (int x = 0; x < image.width(); ++x) inked += image.pixel(x, y) != background;
  EXPECT_GT(inked, image.width() * image.height() / 50);
  EXPECT_TRUE(image.save(KX_UI_SCREENSHOT_PATH)) << KX_UI_SCREENSHOT_PATH;
}

}  // namespace

#include "privacy_view_controller_test.moc"
