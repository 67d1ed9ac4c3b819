// Applications and settings panels from freedesktop `.desktop` files.
#pragma once

#include <string>
#include <string_view>

#include "searchd/parse_result.h"

namespace kx::searchd {

// Parses the [Desktop Entry] group of `content`. `desktopId` is the file's
// desktop id (its name without ".desktop"); `currentDesktops` is the
// colon-separated $XDG_CURRENT_DESKTOP. An entry that asks not to be shown
// (NoDisplay, Hidden, OnlyShowIn/NotShowIn, a type other than Application)
// parses to no items; a file without a group, a Name or with a line that is
// not a key, a group header or a comment is an error.
ParseResult ParseDesktopEntry(const std::string& path, const std::string& desktopId,
                              std::string_view content, std::string_view currentDesktops);

}  // namespace kx::searchd
