// The kind of device the process runs on, as far as search presentation
// cares: phone, tablet, or anything else.
//
// The kind comes from the chassis that systemd records in /etc/machine-info
// (CHASSIS=handset or CHASSIS=tablet); without one, from the device tree's
// chassis-type and the firmware's DMI chassis type. The environment variable
// KX_DEVICE_KIND ("tablet", "handset" or "phone", anything else meaning
// neither) overrides it; it is read on every call so tests can switch kinds.
#pragma once

#include "kx/export.h"

namespace kx {

enum class DeviceKind { Other, Phone, Tablet };

// The current device kind. The machine's own chassis is read once per
// process; the override is consulted on every call.
KX_EXPORT DeviceKind CurrentDeviceKind();

}  // namespace kx
