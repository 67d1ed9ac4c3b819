#include "kx/search_paths.h"

#include <cstdlib>

#include "kx/log.h"
#include "platform/process_info.h"

std::optional<std::string> KXSkylumeSupportDirectoryPath() {
  static const std::optional<std::string> cached = []() -> std::optional<std::string> {
    std::string library;
    try {
      library = kx::UserLibraryDirectory();
    } catch (const kx::DirectoryError&) {
      // Reported below, like any other way of having no library directory.
    }
    if (library.empty()) {
      KXLOG(3, "Can't get skylume support directory path!");
      return std::nullopt;
    }
    if (library.back() != '/') library += '/';
    return library + "Skylume";
  }();
  return cached;
}

std::string KXSearchFrameworkPath() {
  static const std::string cached = [] {
    std::string bundle = kx::ResourceDirectory();
    if (char* resolved = realpath(bundle.c_str(), nullptr)) {
      bundle = resolved;
      std::free(resolved);
    }
    return bundle;
  }();
  return cached;
}
