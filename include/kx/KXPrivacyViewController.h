// The privacy notice of search as a small window-modal dialog: the
// localised title and a read-only, selectable text whose links open.
// Part of libkxsearch-ui (Qt 6 Widgets).
#pragma once

#include <QDialog>
#include <optional>

#include "kx/device_kind.h"
#include "kx/export.h"

class QShowEvent;
class QTextBrowser;

namespace kx {
class PrivacyTextView;
}

class KX_EXPORT KXPrivacyViewController : public QDialog {
 public:
  // Presented window-modal over `parent`, like a sheet.
  explicit KXPrivacyViewController(QWidget* parent = nullptr);
  ~KXPrivacyViewController() override;

  // The text view, built by loadView on first use.
  QTextBrowser* view();
  bool isViewLoaded() const { return textView_ != nullptr; }

  // Builds the view: title, text with its links, the font for the device,
  // scrolling off so that the text is first laid out from its top.
  virtual void loadView();
  // Runs once the dialog has appeared on screen; turns scrolling on.
  virtual void viewDidAppear(bool animated);

  bool shouldAutomaticallyForwardAppearanceMethods() const { return true; }
  bool shouldAutomaticallyForwardRotationMethods() const { return true; }
  bool shouldAutorotateToInterfaceOrientation(int) const { return true; }

  // Text size in device-independent pixels: 17 on a tablet; on a phone 16
  // when the screen is more than 480 high and 15 otherwise or without a
  // screen; 15 on anything else.
  static int FontSizeFor(kx::DeviceKind kind, std::optional<double> screenHeight);

 protected:
  // Height of the primary screen in device-independent pixels; nullopt
  // when there is none.
  virtual std::optional<double> mainScreenHeight() const;
  void showEvent(QShowEvent* event) override;

 private:
  kx::PrivacyTextView* textView_ = nullptr;  // owned by the Qt parent chain
};
