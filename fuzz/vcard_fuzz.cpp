// Parses arbitrary bytes as a vCard file. A parse either fails with a
// reason or yields one titled contact per card, each with its identifier.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "searchd/text.h"
#include "searchd/vcard.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const kx::searchd::ParseResult r = kx::searchd::ParseVCards("/fuzz/c.vcf", content);
  if (r.ok() == r.items.empty()) std::abort();
  for (const kx::searchd::Item& item : r.items) {
    if (item.title.empty() || !kx::searchd::IsValidUtf8(item.title)) std::abort();
    if (item.contactIdentifiers.size() != 1) std::abort();
  }
  return 0;
}
