// Application icons from the freedesktop icon theme, as PNG at a size.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kx::searchd {

// Extra icon base directories searched before the user's and the system's
// (the daemon's --data-root adds DIR/icons). Set once at start.
void SetExtraIconDirectories(std::vector<std::string> directories);

// The icon `name` (a theme icon name, or an absolute file path) as PNG data
// of `size` x `size` pixels: looked up in the current theme ($KX_ICON_THEME,
// default "hicolor"), then the themes it inherits, then "hicolor", then
// /usr/share/pixmaps; the closest size wins, SVG icons are rendered with
// librsvg and other sizes scaled. Nothing when no icon is found or it
// cannot be decoded.
std::optional<std::vector<uint8_t>> IconPng(const std::string& name, int size);

}  // namespace kx::searchd
