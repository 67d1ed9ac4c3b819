// Locations of the search service's per-user files and of the library's own
// resources. Both are computed once per process and cached; safe to call
// from any thread.
#pragma once

#include "kx/export.h"

#include <optional>
#include <string>

// The per-user support directory of the on-device search service: the user
// library directory joined with "Skylume". The directory is not created.
// Absent (and logged) when the user library directory cannot be determined;
// the answer of the first call is kept either way.
KX_EXPORT std::optional<std::string> KXSkylumeSupportDirectoryPath();

// The library's resource bundle, with symbolic links resolved (left as named
// when it cannot be resolved).
KX_EXPORT std::string KXSearchFrameworkPath();
