// The home-screen service: what the system knows about installed
// applications by display identifier, from freedesktop desktop entries.
//
// The entry of display identifier "com.example.App" is the first
// applications/com.example.App.desktop found in $XDG_DATA_HOME, then in each
// $XDG_DATA_DIRS entry. An entry with Hidden=true counts as removed. Its
// bundle (the directory holding the application's string tables) is the
// absolute path under the key "X-KX-Bundle-Path" of the [Desktop Entry]
// group. Entries are read on every call, so installs show at once.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kx {

// The bundle path of the application, or nullopt.
std::optional<std::string> ApplicationBundlePath(std::string_view displayIdentifier);
// The application's name in the localisation locale (Name[ll_CC@mod] ...
// Name), or nullopt.
std::optional<std::string> ApplicationLocalizedName(std::string_view displayIdentifier);

// The keys of the [Desktop Entry] group with escapes resolved; nullopt when
// the text has no such group or the entry is hidden.
std::optional<std::map<std::string, std::string, std::less<>>> ParseDesktopEntry(
    std::string_view contents);

// The value of `key` localised for `localeName` (POSIX form) following the
// desktop entry matching order; nullopt when no form of the key exists.
std::optional<std::string> LocalizedDesktopValue(
    const std::map<std::string, std::string, std::less<>>& entry, std::string_view key,
    std::string_view localeName);

}  // namespace kx
