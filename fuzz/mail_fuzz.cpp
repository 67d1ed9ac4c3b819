// Parses arbitrary bytes as a Maildir message, and reduces them as HTML. A
// parse either fails with a reason or yields one titled item in UTF-8 with
// an identifier and a URL; HTML reduction keeps valid UTF-8 valid.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "searchd/html_text.h"
#include "searchd/mail.h"
#include "searchd/text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kx::searchd;
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const ParseResult r = ParseMail("/fuzz/cur/1.x:2,S", content);
  if (r.ok() == r.items.empty() || r.items.size() > 1) std::abort();
  for (const Item& item : r.items) {
    if (item.identifier.empty() || (item.url.rfind("mid:", 0) != 0 && item.url.rfind("file://", 0) != 0)) std::abort();
    for (const std::string* text : {&item.title, &item.subtitle, &item.summary, &item.keywords, &item.body})
      if (!IsValidUtf8(*text)) std::abort();
  }
  if (IsValidUtf8(content) && !IsValidUtf8(HtmlToText(content))) std::abort();
  return 0;
}
