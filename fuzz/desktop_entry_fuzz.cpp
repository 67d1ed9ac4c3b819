// Parses arbitrary bytes as a desktop entry. A parse either fails with a
// reason or yields items with a title in valid UTF-8; nothing else.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "searchd/desktop_entry.h"
#include "searchd/text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const kx::searchd::ParseResult r =
      kx::searchd::ParseDesktopEntry("/fuzz/app.desktop", "app", content, "GNOME:KDE");
  if (!r.ok() && !r.items.empty()) std::abort();
  for (const kx::searchd::Item& item : r.items)
    if (item.title.empty() || !kx::searchd::IsValidUtf8(item.title)) std::abort();
  return 0;
}
