// The identity the process presents: its bundle identifier names its own
// preference domain and fills the statistics keys.
#pragma once

#include <string>

#include "kx/export.h"

namespace kx {

// Set by the application at start-up; otherwise $KX_BUNDLE_IDENTIFIER;
// otherwise the executable's file name.
KX_EXPORT std::string BundleIdentifier();
// An empty identifier withdraws an earlier one (the fallbacks apply again).
KX_EXPORT void SetBundleIdentifier(std::string identifier);

}  // namespace kx
