// Secure keyed archiving of result properties: an object graph to bytes and
// back with secure coding required and a fixed set of allowed classes. The
// result record stores its additional-property dictionary this way.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kx/value.h"
#include "support/archivable.h"

// The archive of `root` under the key "root" with secure coding required;
// nothing when the graph holds a record that cannot be archived securely.
// An absent root archives too: its bytes unarchive to nil.
std::optional<std::vector<uint8_t>> _kx_secureArchivedDataWithRootObject(const kx::Value& root);

// The object under "root" of `data`, restricted to the allowed classes;
// nil when the data does not decode or holds a class outside the set.
kx::Value _kx_secureUnarchiveObjectWithData(std::span<const uint8_t> data);

namespace kx {

// The allowed classes, built on first use and fixed for the process:
// dictionary, array, string, number, data, date, URL, value, error, KXImage,
// KXColor, "MQPlacemark" when that class is registered by then, VNTImage,
// VNTMapsSearchCategoryImage, VNTCalendarImage, VNTSpriteImage (and KXImage
// once more, which an ordered set keeps at its first place).
const ArchiveClassSet& SecureArchivingAllowedClasses();

}  // namespace kx
