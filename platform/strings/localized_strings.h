// Internals of the localised string tables (see kx/localized_strings.h).
#pragma once

#include <string>
#include <string_view>

#include "kx/localized_strings.h"

namespace kx {

// The ICU locale for a POSIX locale name: codeset and modifier dropped,
// "root" for C, POSIX and the empty name.
std::string ICULocaleForPOSIXLocale(std::string_view posixLocale);

// The table spelling of `key`: table keys must be ICU invariant characters,
// so any other byte of a key, and '%' itself, is percent-encoded.
std::string EncodeTableKey(std::string_view key);

}  // namespace kx
