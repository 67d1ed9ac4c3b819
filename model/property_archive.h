// The archives that a result's property field holds most of the time.
#pragma once

#include <cstdint>
#include <span>

namespace kx {

// True for the archive of no dictionary and of an empty one, which a
// result takes without decoding anything.
bool IsCommonPropertyArchive(std::span<const uint8_t> archive);

}  // namespace kx
