#include "searchd/desktop_entry.h"

#include <map>
#include <optional>
#include <sstream>

#include "searchd/text.h"

namespace kx::searchd {
namespace {

// Values of a desktop entry's string lists are separated by ';', with "\;"
// for a literal semicolon.
std::vector<std::string> SplitList(std::string_view value) {
  std::vector<std::string> parts;
  std::string part;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\' && i + 1 < value.size() && value[i + 1] == ';') {
      part += ';';
      ++i;
    } else if (value[i] == ';') {
      if (!part.empty()) parts.push_back(part);
      part.clear();
    } else {
      part += value[i];
    }
  }
  if (!part.empty()) parts.push_back(part);
  return parts;
}

// Escapes of string values: \s \n \t \r \\.
std::string Unescape(std::string_view value) {
  std::string out;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    switch (value[++i]) {
      case 's': out += ' '; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 'r': out += '\r'; break;
      case '\\': out += '\\'; break;
      default: out += '\\'; out += value[i]; break;
    }
  }
  return out;
}

std::string Trim(std::string_view s) {
  const size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string_view::npos) return {};
  const size_t e = s.find_last_not_of(" \t\r");
  return std::string(s.substr(b, e - b + 1));
}

bool SharesDesktop(const std::vector<std::string>& listed, std::string_view current) {
  std::stringstream in{std::string(current)};
  for (std::string name; std::getline(in, name, ':');)
    for (const std::string& l : listed)
      if (!name.empty() && l == name) return true;
  return false;
}

}  // namespace

ParseResult ParseDesktopEntry(const std::string& path, const std::string& desktopId,
                              std::string_view content, std::string_view currentDesktops) {
  if (!IsValidUtf8(content)) return ParseResult::Failure("not UTF-8");
  // key (with its "[locale]" suffix) -> value, of the main group only.
  std::map<std::string, std::string, std::less<>> keys;
  bool sawMainGroup = false, inMainGroup = false;
  size_t lineNumber = 0;
  std::stringstream in{std::string(content)};
  for (std::string raw; std::getline(in, raw);) {
    ++lineNumber;
    const std::string line = Trim(raw);
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[') {
      if (line.back() != ']') return ParseResult::Failure("bad group header at line " + std::to_string(lineNumber));
      inMainGroup = line == "[Desktop Entry]";
      if (inMainGroup && sawMainGroup) return ParseResult::Failure("two [Desktop Entry] groups");
      sawMainGroup |= inMainGroup;
      continue;
    }
    const size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0)
      return ParseResult::Failure("not a key at line " + std::to_string(lineNumber));
    if (!inMainGroup) continue;
    keys.emplace(Trim(std::string_view(line).substr(0, equals)), Trim(std::string_view(line).substr(equals + 1)));
  }
  if (!sawMainGroup) return ParseResult::Failure("no [Desktop Entry] group");
  auto get = [&keys](std::string_view key) -> std::string {
    auto it = keys.find(key);
    return it == keys.end() ? std::string() : Unescape(it->second);
  };
  const std::string name = get("Name");
  if (name.empty()) return ParseResult::Failure("no Name");

  ParseResult result;
  const std::string type = get("Type");
  if (type != "Application" || get("NoDisplay") == "true" || get("Hidden") == "true") return result;
  const std::vector<std::string> onlyShowIn = SplitList(get("OnlyShowIn"));
  if (!onlyShowIn.empty() && !SharesDesktop(onlyShowIn, currentDesktops)) return result;
  if (SharesDesktop(SplitList(get("NotShowIn")), currentDesktops)) return result;

  Item item;
  const std::vector<std::string> categories = SplitList(get("Categories"));
  bool settings = false;
  for (const std::string& c : categories) settings |= c == "Settings" || c == "X-GNOME-Settings-Panel";
  item.domain = settings ? kDomainSettings : kDomainApplications;
  item.bundle = desktopId;
  item.identifier = desktopId;
  item.title = name;
  item.subtitle = get("GenericName");
  item.summary = get("Comment");
  item.url = FileUrl(path);
  item.icon = get("Icon");
  item.launchCommand = get("Exec");
  for (const std::string& keyword : SplitList(get("Keywords"))) item.keywords += keyword + " ";
  item.keywords += item.subtitle;
  item.body = item.summary;
  // Localised forms: "Name[de]" becomes the title for German keyboards and,
  // like the localised generic names, keywords and comments, is searchable.
  for (const auto& [key, value] : keys) {
    const size_t open = key.find('[');
    if (open == std::string::npos || key.back() != ']') continue;
    const std::string base = key.substr(0, open);
    const std::string language = key.substr(open + 1, key.size() - open - 2);
    const std::string text = Unescape(value);
    if (base == "Name") {
      item.localizedTitles[language] = text;
    } else if (base == "GenericName" || base == "Keywords") {
      for (const std::string& word : SplitList(text)) item.keywords += " " + word;
    } else if (base == "Comment") {
      item.body += " " + text;
    }
  }
  result.items.push_back(std::move(item));
  return result;
}

}  // namespace kx::searchd
