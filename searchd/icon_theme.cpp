#include "searchd/icon_theme.h"

#include <cairo.h>
#include <librsvg/rsvg.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>

namespace kx::searchd {
namespace {

namespace fs = std::filesystem;

// Icons are small; anything bigger is not worth handing to a decoder.
constexpr uintmax_t kMaxIconBytes = 2 * 1024 * 1024;
constexpr int kMaxIconSize = 1024;

std::mutex gExtraMutex;
std::vector<std::string> gExtraDirectories;  // guarded by gExtraMutex

std::vector<std::string> BaseDirectories() {
  std::vector<std::string> bases;
  {
    std::lock_guard lock(gExtraMutex);
    bases = gExtraDirectories;
  }
  const char* home = std::getenv("HOME");
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  if (home) bases.push_back(std::string(home) + "/.icons");
  bases.push_back(dataHome && *dataHome ? std::string(dataHome) + "/icons"
                                        : std::string(home ? home : "") + "/.local/share/icons");
  const char* dataDirs = std::getenv("XDG_DATA_DIRS");
  std::stringstream dirs(dataDirs && *dataDirs ? dataDirs : "/usr/local/share:/usr/share");
  for (std::string dir; std::getline(dirs, dir, ':');)
    if (!dir.empty()) bases.push_back(dir + "/icons");
  return bases;
}

// The [Icon Theme] keys and per-directory keys of a theme's index.theme.
struct ThemeIndex {
  std::vector<std::string> inherits;
  struct Directory {
    std::string path;
    int size = 0, minSize = 0, maxSize = 0;
  };
  std::vector<Directory> directories;
};

std::optional<ThemeIndex> ReadThemeIndex(const std::string& file) {
  std::ifstream in(file);
  if (!in) return std::nullopt;
  std::map<std::string, std::map<std::string, std::string>> groups;
  std::string group;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[' && line.back() == ']') {
      group = line.substr(1, line.size() - 2);
      continue;
    }
    const size_t eq = line.find('=');
    if (eq != std::string::npos) groups[group][line.substr(0, eq)] = line.substr(eq + 1);
  }
  auto list = [](const std::string& value) {
    std::vector<std::string> items;
    std::stringstream s(value);
    for (std::string item; std::getline(s, item, ',');)
      if (!item.empty()) items.push_back(item);
    return items;
  };
  auto number = [](const std::map<std::string, std::string>& g, const char* key, int fallback) {
    auto it = g.find(key);
    return it == g.end() ? fallback : std::atoi(it->second.c_str());
  };
  ThemeIndex index;
  index.inherits = list(groups["Icon Theme"]["Inherits"]);
  for (const std::string& dir : list(groups["Icon Theme"]["Directories"])) {
    const auto& g = groups[dir];
    ThemeIndex::Directory d;
    d.path = dir;
    d.size = number(g, "Size", 0);
    const bool scalable = g.count("Type") && g.at("Type") == "Scalable";
    d.minSize = number(g, "MinSize", scalable ? 1 : d.size);
    d.maxSize = number(g, "MaxSize", scalable ? kMaxIconSize : d.size);
    index.directories.push_back(d);
  }
  return index;
}

int Distance(const ThemeIndex::Directory& d, int size) {
  if (size < d.minSize) return d.minSize - size;
  if (size > d.maxSize) return size - d.maxSize;
  return 0;
}

// The best file for `name` in one theme across the base directories.
std::optional<std::string> FindInTheme(const std::string& theme, const std::string& name, int size,
                                       const std::vector<std::string>& bases,
                                       std::vector<std::string>* inherits) {
  std::optional<std::string> best;
  int bestDistance = INT_MAX;
  for (const std::string& base : bases) {
    const std::string root = base + "/" + theme;
    std::optional<ThemeIndex> index = ReadThemeIndex(root + "/index.theme");
    if (!index) continue;
    if (inherits->empty()) *inherits = index->inherits;
    for (const auto& dir : index->directories) {
      for (const char* ext : {".png", ".svg"}) {
        const std::string file = root + "/" + dir.path + "/" + name + ext;
        std::error_code ec;
        if (!fs::is_regular_file(file, ec)) continue;
        const int distance = Distance(dir, size);
        if (distance < bestDistance) {
          best = file;
          bestDistance = distance;
        }
      }
    }
  }
  return best;
}

std::optional<std::string> FindIcon(const std::string& name, int size) {
  if (!name.empty() && name[0] == '/') return name;
  if (name.empty() || name.find('/') != std::string::npos) return std::nullopt;
  const std::vector<std::string> bases = BaseDirectories();
  const char* configured = std::getenv("KX_ICON_THEME");
  std::vector<std::string> pending = {configured && *configured ? configured : "hicolor"};
  std::set<std::string> visited;
  while (!pending.empty()) {
    const std::string theme = pending.front();
    pending.erase(pending.begin());
    if (!visited.insert(theme).second) continue;
    std::vector<std::string> inherits;
    if (auto found = FindInTheme(theme, name, size, bases, &inherits)) return found;
    pending.insert(pending.end(), inherits.begin(), inherits.end());
    if (pending.empty() && !visited.count("hicolor")) pending.push_back("hicolor");
  }
  for (const char* ext : {".png", ".svg"}) {
    const std::string file = "/usr/share/pixmaps/" + name + ext;
    std::error_code ec;
    if (fs::is_regular_file(file, ec)) return file;
  }
  return std::nullopt;
}

cairo_status_t AppendBytes(void* closure, const unsigned char* data, unsigned int length) {
  static_cast<std::vector<uint8_t>*>(closure)->insert(static_cast<std::vector<uint8_t>*>(closure)->end(),
                                                      data, data + length);
  return CAIRO_STATUS_SUCCESS;
}

bool EndsWith(const std::string& s, const char* suffix) {
  const size_t n = std::char_traits<char>::length(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

// Draws the icon file scaled to size x size into `cr`.
bool Draw(cairo_t* cr, const std::string& file, int size) {
  if (EndsWith(file, ".svg")) {
    GError* error = nullptr;
    RsvgHandle* handle = rsvg_handle_new_from_file(file.c_str(), &error);
    if (!handle) {
      if (error) g_error_free(error);
      return false;
    }
    RsvgRectangle viewport = {0, 0, static_cast<double>(size), static_cast<double>(size)};
    const bool ok = rsvg_handle_render_document(handle, cr, &viewport, &error);
    if (error) g_error_free(error);
    g_object_unref(handle);
    return ok;
  }
  cairo_surface_t* image = cairo_image_surface_create_from_png(file.c_str());
  const bool ok = cairo_surface_status(image) == CAIRO_STATUS_SUCCESS &&
                  cairo_image_surface_get_width(image) > 0 && cairo_image_surface_get_height(image) > 0;
  if (ok) {
    cairo_scale(cr, static_cast<double>(size) / cairo_image_surface_get_width(image),
                static_cast<double>(size) / cairo_image_surface_get_height(image));
    cairo_set_source_surface(cr, image, 0, 0);
    cairo_paint(cr);
  }
  cairo_surface_destroy(image);
  return ok;
}

}  // namespace

void SetExtraIconDirectories(std::vector<std::string> directories) {
  std::lock_guard lock(gExtraMutex);
  gExtraDirectories = std::move(directories);
}

std::optional<std::vector<uint8_t>> IconPng(const std::string& name, int size) {
  size = std::clamp(size, 1, kMaxIconSize);
  const std::optional<std::string> file = FindIcon(name, size);
  std::error_code ec;
  if (!file || fs::file_size(*file, ec) > kMaxIconBytes || ec) return std::nullopt;
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, size, size);
  cairo_t* cr = cairo_create(surface);
  const bool drawn = Draw(cr, *file, size);
  cairo_destroy(cr);
  std::vector<uint8_t> png;
  if (drawn) cairo_surface_write_to_png_stream(surface, AppendBytes, &png);
  cairo_surface_destroy(surface);
  if (!drawn || png.empty()) return std::nullopt;
  return png;
}

}  // namespace kx::searchd
