#include "kx/search_paths.h"

#include <cstdlib>

#include "kx/log.h"
#include "platform/process/process_info.h"

// The cached paths are never destroyed: threads that outlive main (message
// readers, the pool) may still ask for them at exit.
std::optional<std::string> KXSkylumeSupportDirectoryPath() {
  static const auto& cached = *new std::optional<std::string>([]() -> std::optional<std::string> {
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
  }());
  return cached;
}

std::string KXSearchFrameworkPath() {
  static const std::string& cached = *new std::string([] {
    std::string bundle = kx::ResourceDirectory();
    if (char* resolved = realpath(bundle.c_str(), nullptr)) {
      bundle = resolved;
      std::free(resolved);
    }
    return bundle;
  }());
  return cached;
}
