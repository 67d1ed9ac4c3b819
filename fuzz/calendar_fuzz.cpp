// Parses arbitrary bytes as an iCalendar file, at a fixed "now". A parse
// either fails with a reason or yields events that each have a title in
// UTF-8, an identifier and the date of an occurrence.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "searchd/calendar.h"
#include "searchd/text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kx::searchd;
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const kx::Date now{830000000};  // April 2027
  const ParseResult r = ParseCalendar("/fuzz/c.ics", content, now);
  if (r.ok() == r.items.empty()) std::abort();
  for (const Item& item : r.items) {
    if (item.title.empty() || item.identifier.empty() || !item.date) std::abort();
    if (!IsValidUtf8(item.title + item.subtitle + item.summary + item.keywords + item.body)) std::abort();
  }
  return 0;
}
