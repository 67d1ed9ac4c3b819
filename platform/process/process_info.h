// Identity and standard locations of the running process.
//
// Values that cannot change while the process runs (the executable, the
// home, runtime and library directories) are computed on first use and
// cached, so the environment variables they read must be set before then.
// All functions are safe to call from any thread.
#pragma once

#include <string>
#include <vector>

#include "kx/exception.h"
#include "kx/process.h"

namespace kx {

// Raised by the directory functions below when a directory cannot be created
// or is not safe to use (a file in its place, another owner, permissions
// open to other users). Nothing is cached then; a later call tries again.
class DirectoryError : public Exception {
 public:
  explicit DirectoryError(std::string reason)
      : Exception("KXDirectoryError", std::move(reason)) {}
};

// The executable's file name.
std::string ProcessName();
// "<KXThread: 0x...>{number = N, name = ...}" for the calling thread, used by
// log lines. The address and number are fixed for the thread's lifetime; the
// main thread is number 1 named "main", other threads are numbered from 2 in
// order of their first call and show the name given to them with
// pthread_setname_np, or "(null)".
std::string CurrentThreadDescription();

// $HOME, falling back to the password database.
std::string HomeDirectory();
// $XDG_RUNTIME_DIR, or /tmp/kx-runtime-<uid> created 0700 and checked to
// belong to the user (DirectoryError otherwise).
std::string RuntimeDirectory();
// $KX_SERVICE_DIR or <runtime>/kx-services, created 0700 and checked to be
// private to the user (DirectoryError otherwise).
std::string ServiceDirectory();
// $KX_NOTIFY_DIR or <runtime>/kx-notify, like ServiceDirectory().
std::string NotifyDirectory();
// $XDG_CONFIG_HOME or ~/.config (not created).
std::string ConfigDirectory();
// The user library directory: $XDG_DATA_HOME or ~/.local/share, created 0700
// when missing (DirectoryError when that fails).
std::string UserLibraryDirectory();
// $XDG_DATA_DIRS entries (default /usr/local/share:/usr/share), in order.
// Read on every call; relative entries are ignored.
std::vector<std::string> DataDirectories();
// The library's bundle: $KX_RESOURCE_DIR, else the installed data directory
// with symbolic links resolved, else (not installed) the build tree's.
std::string ResourceDirectory();

}  // namespace kx
