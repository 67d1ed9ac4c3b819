// Localised string tables: ICU resource bundles compiled by genrb.
//
// A bundle is a directory; a table named "Search Results" lives in its
// subdirectory "SearchResults" (blanks removed) as <locale>.res files, with
// root.res holding the English text at the end of ICU's fallback chain.
//
// Table keys must be ICU invariant characters. Any other byte of a key, and
// '%' itself, is written in the table percent-encoded: the key "A-%@" is
// spelt "A-%25%40" in the source file. Lookups encode keys the same way.
//
// The locale follows the one the application set, else the environment
// (LC_ALL, LC_MESSAGES, LANG, the first that is set and not empty); the C
// and POSIX locales read the root table.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kx/export.h"

namespace kx {

// Sets the locale of every later lookup ("de_DE", "fr_CA.UTF-8"); nullopt
// returns to following the environment. Safe to call from any thread.
KX_EXPORT void SetLocalizationLocale(std::optional<std::string> locale);

// The locale name lookups use, as set or as the environment spells it
// ("de_DE.UTF-8@euro"); "C" when nothing is set.
KX_EXPORT std::string LocalizationLocaleName();

// The text of `key` in `table` of the bundle at `bundlePath`, for the
// current locale; `defaultValue` when the bundle, the table or the key is
// missing or the key is empty. Safe to call from any thread.
KX_EXPORT std::optional<std::string> LocalizedString(std::string_view key,
                                                     const std::optional<std::string>& defaultValue,
                                                     std::string_view table,
                                                     std::string_view bundlePath);

// The text of `key` in `table` of the library's own bundle, "" when missing.
KX_EXPORT std::string LibraryLocalizedString(std::string_view key, std::string_view table);

}  // namespace kx
