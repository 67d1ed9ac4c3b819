// Decodes arbitrary bytes as a binary property list. Whatever decodes must
// encode again and decode to an equal value; anything else is a bug.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "base/property_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kx::PropertyListResult r = kx::DecodeBinaryPropertyList(std::span(data, size));
  if (!r.ok()) {
    if (!r.value.isNil()) std::abort();
    return 0;
  }
  std::string error;
  std::vector<uint8_t> again = kx::EncodeBinaryPropertyList(r.value, &error);
  if (!error.empty()) std::abort();
  kx::PropertyListResult back = kx::DecodeBinaryPropertyList(again);
  if (!back.ok() || !(back.value == r.value)) std::abort();
  return 0;
}
