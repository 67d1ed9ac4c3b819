// kx-search-window: an example search window over the search agent.
//
//   kx-search-window [--no-launch]
#include <QApplication>
#include <QCommandLineParser>

#include "tools/kx-search-window/search_window.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName("kx-search-window");
  QCommandLineParser parser;
  parser.setApplicationDescription("Searches with the kxsearch daemon as you type.");
  parser.addHelpOption();
  const QCommandLineOption noLaunch("no-launch", "Send the engagement but open nothing.");
  parser.addOption(noLaunch);
  parser.process(application);
  kx::window::SearchWindow window(!parser.isSet(noLaunch));
  window.show();
  return QApplication::exec();
}
