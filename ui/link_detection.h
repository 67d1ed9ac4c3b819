// Plain text to HTML with web addresses and mail addresses turned into
// links, the way a text view with link detection shows them.
#pragma once

#include <QString>

namespace kx {

// Escapes `text` for HTML, keeps its line breaks, and links "http://",
// "https://" and "www." addresses and mail addresses. Punctuation that ends
// a sentence is not taken into an address.
QString HTMLWithDetectedLinks(const QString& text);

}  // namespace kx
