// Identity and standard locations of the running process.
#pragma once

#include <string>
#include <vector>

namespace kx {

// Set by the application at start-up; otherwise $KX_BUNDLE_IDENTIFIER;
// otherwise the executable's file name.
std::string BundleIdentifier();
void SetBundleIdentifier(std::string identifier);
// The executable's file name.
std::string ProcessName();
// "<NSThread: 0x...>{number = N, name = main}"-like description of the
// calling thread, used by log lines.
std::string CurrentThreadDescription();

// $HOME, falling back to the password database.
std::string HomeDirectory();
// $XDG_RUNTIME_DIR, or /tmp/kx-runtime-<uid> created 0700 and checked to
// belong to the user.
std::string RuntimeDirectory();
// $KX_SERVICE_DIR or <runtime>/kx-services (created 0700).
std::string ServiceDirectory();
// $KX_NOTIFY_DIR or <runtime>/kx-notify (created 0700).
std::string NotifyDirectory();
// $XDG_CONFIG_HOME or ~/.config.
std::string ConfigDirectory();
// The user library directory: $XDG_DATA_HOME or ~/.local/share, created 0700.
std::string UserLibraryDirectory();
// $XDG_DATA_DIRS entries (default /usr/local/share:/usr/share), in order.
std::vector<std::string> DataDirectories();
// The library's bundle: $KX_RESOURCE_DIR, else the installed data directory
// with symbolic links resolved.
std::string ResourceDirectory();

}  // namespace kx
