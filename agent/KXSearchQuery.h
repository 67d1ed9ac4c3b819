// The query class is public API; its declaration lives with the installed
// headers.
#pragma once

#include "kx/KXSearchQuery.h"
