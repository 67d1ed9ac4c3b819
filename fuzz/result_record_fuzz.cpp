// Decodes arbitrary bytes as one result record. Decoding must never crash or
// read out of bounds; whatever decodes must encode to bytes that decode
// again and re-encode to the very same bytes (the encoding is canonical once
// a record has been through one round).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "kx/KXSearchResult.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  WireReader skip(data, size);
  KXSearchResultSkipFrom(skip);
  if (skip.position() > size) std::abort();

  KXSearchResult result;
  WireReader reader(data, size);
  if (!KXSearchResultReadFrom(result, reader)) return 0;
  if (reader.position() > size) std::abort();
  // Exercise the lazily decoded dictionary and the readers of derived data.
  result.additionalPropertiesCount();
  result.description();
  result.copy();

  const std::vector<uint8_t> once = result.data();
  KXSearchResult again;
  if (!again.initWithData(once)) std::abort();
  if (again.data() != once) std::abort();
  WireReader skipOnce(once.data(), once.size());
  if (!KXSearchResultSkipFrom(skipOnce) || skipOnce.position() != once.size()) std::abort();
  return 0;
}
