// Reads arbitrary bytes as a document: text when they are UTF-8 without NUL
// bytes (a character cut at the end dropped), PDF text through poppler when
// they start like a PDF, nothing otherwise. Always one item, found by its
// name, whose texts are valid UTF-8 and whose summary is bounded.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "searchd/documents.h"
#include "searchd/note.h"
#include "searchd/text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const kx::searchd::ParseResult r = kx::searchd::ParseDocument("/fuzz/folder/d.txt", content);
  if (!r.ok() || r.items.size() != 1) std::abort();
  const kx::searchd::Item& item = r.items[0];
  if (item.title != "d.txt" || item.subtitle != "folder") std::abort();
  if (!kx::searchd::IsValidUtf8(item.body) || !kx::searchd::IsValidUtf8(item.summary)) std::abort();
  if (item.body.size() > kx::searchd::kMaxDocumentTextBytes) std::abort();
  if (kx::searchd::CodePointCount(item.summary) > kx::searchd::kNoteSnippetLength + 1) std::abort();
  return 0;
}
