// Internals of the device kind (see kx/device_kind.h).
#pragma once

#include <string>
#include <string_view>

#include "kx/device_kind.h"

namespace kx {

// Maps a systemd chassis name ("tablet", "handset", ...) to a device kind.
DeviceKind DeviceKindForChassis(std::string_view chassis);

// The CHASSIS= value of machine-info text (shell-style KEY=VALUE lines,
// values optionally quoted); empty when the text names none.
std::string ChassisFromMachineInfo(std::string_view contents);

}  // namespace kx
