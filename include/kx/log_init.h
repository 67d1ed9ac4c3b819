// Start-up of the process's diagnostic log file.
#pragma once

#include "kx/export.h"

#include "kx/log.h"

// Reads "KXLogLevel" from the process's user defaults, once per process.
// Logging works without it: the first line logged reads the preference too.
KX_EXPORT void KXLogInit();
