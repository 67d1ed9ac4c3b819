#include "ui/link_detection.h"

#include <QRegularExpression>

namespace kx {

QString HTMLWithDetectedLinks(const QString& text) {
  static const QRegularExpression kAddress(
      QStringLiteral(R"((https?://|www\.)[^\s<>"]+|[\w.+-]+@[\w-]+(\.[\w-]+)+)"),
      QRegularExpression::UseUnicodePropertiesOption);
  static const QString kTrailingPunctuation = QStringLiteral(".,;:!?)'");

  QString html;
  qsizetype done = 0;
  for (auto it = kAddress.globalMatch(text); it.hasNext();) {
    const QRegularExpressionMatch match = it.next();
    QString address = match.captured();
    while (!address.isEmpty() && kTrailingPunctuation.contains(address.back())) address.chop(1);
    if (address.isEmpty()) continue;
    QString target = address;
    if (address.startsWith(QLatin1String("www.")))
      target.prepend(QLatin1String("https://"));
    else if (!address.contains(QLatin1String("://")))
      target.prepend(QLatin1String("mailto:"));
    html += text.mid(done, match.capturedStart() - done).toHtmlEscaped();
    html += QStringLiteral("<a href=\"%1\">%2</a>")
                .arg(target.toHtmlEscaped(), address.toHtmlEscaped());
    done = match.capturedStart() + address.size();
  }
  html += text.mid(done).toHtmlEscaped();
  html.replace(QLatin1Char('\n'), QLatin1String("<br>"));
  return html;
}

}  // namespace kx
