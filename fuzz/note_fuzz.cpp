// Parses arbitrary bytes as a Markdown note. A parse either fails with a
// reason or yields one note whose title and summary are valid UTF-8 and
// whose summary is bounded.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "searchd/note.h"
#include "searchd/text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const kx::searchd::ParseResult r = kx::searchd::ParseNote("/fuzz/n.md", content);
  if (r.ok() != (r.items.size() == 1)) std::abort();
  for (const kx::searchd::Item& item : r.items) {
    if (item.title.empty() || !kx::searchd::IsValidUtf8(item.title) ||
        !kx::searchd::IsValidUtf8(item.summary))
      std::abort();
    if (kx::searchd::CodePointCount(item.summary) > kx::searchd::kNoteSnippetLength + 1) std::abort();
  }
  return 0;
}
