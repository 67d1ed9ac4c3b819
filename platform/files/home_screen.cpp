#include "platform/files/home_screen.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <vector>

#include "kx/log.h"
#include "platform/strings/localized_strings.h"
#include "platform/process/process_info.h"
#include "platform/strings/text_lines.h"

namespace kx {
namespace {

using Entry = std::map<std::string, std::string, std::less<>>;

// Resolves the escapes the desktop entry format defines for string values.
std::string Unescape(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    switch (const char c = value[++i]) {
      case 's': out += ' '; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 'r': out += '\r'; break;
      default: out += c; break;  // "\\" and "\;" among others
    }
  }
  return out;
}

// A display identifier names a file; anything that could leave the
// applications directory is not one.
bool IsValidDisplayIdentifier(std::string_view identifier) {
  return !identifier.empty() && identifier.find('/') == std::string_view::npos &&
         identifier != "." && identifier != "..";
}

std::optional<Entry> FindEntry(std::string_view displayIdentifier) {
  if (!IsValidDisplayIdentifier(displayIdentifier)) return std::nullopt;
  std::vector<std::string> directories;
  try {
    directories.push_back(UserLibraryDirectory());
  } catch (const DirectoryError& error) {
    // The system's entries still answer without a usable user directory.
    KXLOG(3, "Skipping the user's applications: %s", error.reason());
  }
  for (std::string& directory : DataDirectories()) directories.push_back(std::move(directory));
  for (const std::string& directory : directories) {
    const std::string path =
        directory + "/applications/" + std::string(displayIdentifier) + ".desktop";
    std::ifstream in(path, std::ios::binary);
    if (!in) continue;
    std::ostringstream contents;
    contents << in.rdbuf();
    // The first file found shadows later ones even when it hides the entry.
    std::optional<Entry> entry = ParseDesktopEntry(contents.str());
    if (!entry) KXLOG(7, "Desktop entry %s is hidden or has no [Desktop Entry] group", path);
    return entry;
  }
  return std::nullopt;
}

}  // namespace

std::optional<Entry> ParseDesktopEntry(std::string_view contents) {
  Entry entry;
  bool inGroup = false, sawGroup = false;
  ForEachTrimmedLine(contents, [&](std::string_view line) {
    if (line.empty() || line.front() == '#') return;
    if (line.front() == '[') {
      inGroup = line == "[Desktop Entry]";
      sawGroup |= inGroup;
      return;
    }
    const size_t equals = line.find('=');
    if (!inGroup || equals == std::string_view::npos) return;
    // The first occurrence of a key counts; duplicates are malformed.
    entry.emplace(std::string(TrimBlanks(line.substr(0, equals))),
                  Unescape(TrimBlanks(line.substr(equals + 1))));
  });
  if (!sawGroup) return std::nullopt;
  if (auto hidden = entry.find("Hidden"); hidden != entry.end() && hidden->second == "true")
    return std::nullopt;
  return entry;
}

std::optional<std::string> LocalizedDesktopValue(const Entry& entry, std::string_view key,
                                                 std::string_view localeName) {
  // lang_COUNTRY.ENCODING@MODIFIER; the encoding plays no part in matching.
  const size_t at = localeName.find('@');
  const std::string_view modifier =
      at == std::string_view::npos ? std::string_view() : localeName.substr(at + 1);
  const std::string_view base = localeName.substr(0, std::min(at, localeName.find('.')));
  const size_t underscore = base.find('_');
  const std::string_view lang = base.substr(0, underscore);
  const std::string_view country =
      underscore == std::string_view::npos ? std::string_view() : base.substr(underscore + 1);

  std::vector<std::string> candidates;
  if (!lang.empty() && lang != "C" && lang != "POSIX") {
    const std::string withCountry = std::string(lang) + "_" + std::string(country);
    if (!country.empty() && !modifier.empty())
      candidates.push_back(withCountry + "@" + std::string(modifier));
    if (!country.empty()) candidates.push_back(withCountry);
    if (!modifier.empty()) candidates.push_back(std::string(lang) + "@" + std::string(modifier));
    candidates.emplace_back(lang);
  }
  for (const std::string& locale : candidates) {
    const std::string localizedKey = std::string(key) + "[" + locale + "]";
    if (auto it = entry.find(localizedKey); it != entry.end()) return it->second;
  }
  if (auto it = entry.find(key); it != entry.end()) return it->second;
  return std::nullopt;
}

std::optional<std::string> ApplicationBundlePath(std::string_view displayIdentifier) {
  std::optional<Entry> entry = FindEntry(displayIdentifier);
  if (!entry) return std::nullopt;
  auto it = entry->find("X-KX-Bundle-Path");
  if (it == entry->end() || it->second.empty()) return std::nullopt;
  if (it->second.front() != '/') {
    KXLOG(3, "Ignoring relative bundle path %s of %s", it->second, displayIdentifier);
    return std::nullopt;
  }
  return it->second;
}

std::optional<std::string> ApplicationLocalizedName(std::string_view displayIdentifier) {
  std::optional<Entry> entry = FindEntry(displayIdentifier);
  if (!entry) return std::nullopt;
  return LocalizedDesktopValue(*entry, "Name", LocalizationLocaleName());
}

}  // namespace kx
