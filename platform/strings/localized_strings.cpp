#include "platform/strings/localized_strings.h"

#include <unicode/ures.h>
#include <unicode/ustring.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

#include "kx/log.h"
#include "platform/process/process_info.h"

namespace kx {
namespace {

struct BundleCloser {
  void operator()(UResourceBundle* bundle) const { ures_close(bundle); }
};
using BundlePtr = std::unique_ptr<UResourceBundle, BundleCloser>;

// Opened tables stay open for the life of the process: a process reads a
// handful of tables in one or two locales. Failed opens are not remembered,
// so a table that appears later (an application installed meanwhile) is
// found. One mutex guards the cache, the lookups in cached bundles and the
// locale the application set.
struct Tables {
  std::mutex mutex;
  std::optional<std::string> locale;
  std::map<std::string, BundlePtr, std::less<>> open;
};

Tables& SharedTables() {
  static Tables* tables = new Tables;  // never destroyed: used until exit
  return *tables;
}

std::string EnvironmentLocaleName() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value && *value) return value;
  }
  return "C";
}

// Requires the tables' mutex.
std::string LocaleNameLocked(const Tables& tables) {
  return tables.locale ? *tables.locale : EnvironmentLocaleName();
}

bool IsInvariant(unsigned char c) {
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case ' ': case '"': case '&': case '\'': case '(': case ')': case '*': case '+':
    case ',': case '-': case '.': case '/': case ':': case ';': case '<': case '=':
    case '>': case '?': case '_':
      return true;
    default:
      return false;  // '%' included: it introduces an escape
  }
}

std::string TableDirectory(std::string_view bundlePath, std::string_view table) {
  std::string path(bundlePath);
  if (path.empty() || path.back() != '/') path += '/';
  for (char c : table)
    if (c != ' ') path += c;
  // A trailing separator tells ICU the path is a directory of <locale>.res
  // files rather than a package name.
  path += '/';
  return path;
}

// Requires the tables' mutex. Null when the table cannot be opened.
UResourceBundle* OpenTableLocked(Tables& tables, std::string_view bundlePath,
                                 std::string_view table, const std::string& localeName) {
  std::string cacheKey(bundlePath);
  cacheKey.append(1, '\0').append(table).append(1, '\0').append(localeName);
  if (auto it = tables.open.find(cacheKey); it != tables.open.end()) return it->second.get();

  const std::string directory = TableDirectory(bundlePath, table);
  const std::string locale = ICULocaleForPOSIXLocale(localeName);
  UErrorCode status = U_ZERO_ERROR;
  BundlePtr bundle(ures_open(directory.c_str(), locale.c_str(), &status));
  if (U_FAILURE(status) || !bundle) {
    KXLOG(7, "No string table %s for locale %s: %s", directory, locale, u_errorName(status));
    return nullptr;
  }
  UResourceBundle* result = bundle.get();
  tables.open.emplace(std::move(cacheKey), std::move(bundle));
  return result;
}

std::string ToUTF8(const UChar* text, int32_t length) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t needed = 0;
  u_strToUTF8WithSub(nullptr, 0, &needed, text, length, 0xFFFD, nullptr, &status);
  std::string out(static_cast<size_t>(needed), '\0');
  status = U_ZERO_ERROR;
  u_strToUTF8WithSub(out.data(), needed, nullptr, text, length, 0xFFFD, nullptr, &status);
  return out;
}

}  // namespace

void SetLocalizationLocale(std::optional<std::string> locale) {
  Tables& tables = SharedTables();
  std::lock_guard lock(tables.mutex);
  tables.locale = std::move(locale);
}

std::string LocalizationLocaleName() {
  Tables& tables = SharedTables();
  std::lock_guard lock(tables.mutex);
  return LocaleNameLocked(tables);
}

std::string ICULocaleForPOSIXLocale(std::string_view posixLocale) {
  const std::string_view name = posixLocale.substr(0, posixLocale.find_first_of(".@"));
  if (name.empty() || name == "C" || name == "POSIX") return "root";
  return std::string(name);
}

std::string EncodeTableKey(std::string_view key) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(key.size());
  for (unsigned char c : key) {
    if (IsInvariant(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  return out;
}

std::optional<std::string> LocalizedString(std::string_view key,
                                           const std::optional<std::string>& defaultValue,
                                           std::string_view table, std::string_view bundlePath) {
  if (key.empty()) return defaultValue;
  const std::string tableKey = EncodeTableKey(key);
  Tables& tables = SharedTables();
  std::lock_guard lock(tables.mutex);
  UResourceBundle* bundle = OpenTableLocked(tables, bundlePath, table, LocaleNameLocked(tables));
  if (!bundle) return defaultValue;
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  const UChar* text = ures_getStringByKey(bundle, tableKey.c_str(), &length, &status);
  if (U_FAILURE(status)) return defaultValue;
  return ToUTF8(text, length);
}

std::string LibraryLocalizedString(std::string_view key, std::string_view table) {
  return *LocalizedString(key, std::string(), table, ResourceDirectory());
}

}  // namespace kx
