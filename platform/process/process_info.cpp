#include "platform/process/process_info.h"

#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/process/directory.h"

// Cached values live in function-local statics: the language initialises
// them once and thread-safely, and an initialiser that throws (DirectoryError)
// leaves the value unset, so the next call tries again. They are allocated
// and never destroyed: detached threads (message readers, the pool) may still
// read them, for instance while logging, once static destructors run at exit.

namespace kx {
namespace {

// The variable's value when it is set and not empty.
const char* NonEmptyEnv(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

// Base directory variables must hold absolute paths; the XDG rules say a
// relative one is invalid and to be ignored.
const char* AbsoluteEnv(const char* name) {
  const char* value = NonEmptyEnv(name);
  return value && value[0] == '/' ? value : nullptr;
}

std::string ExecutableName() {
  char buffer[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return program_invocation_short_name;
  std::string path(buffer, static_cast<size_t>(n));
  // The kernel marks an executable replaced since exec this way.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string PrivateDirectoryOrThrow(std::string path) {
  std::string error;
  if (!MakePrivateDirectory(path, &error)) throw DirectoryError(error);
  return path;
}

std::string RuntimeSubdirectory(const char* overrideVariable, const char* name) {
  if (const char* dir = AbsoluteEnv(overrideVariable)) return PrivateDirectoryOrThrow(dir);
  return PrivateDirectoryOrThrow(RuntimeDirectory() + "/" + name);
}

std::mutex gBundleMutex;
// Empty: not set; guarded by gBundleMutex.
std::string& BundleOverride() {
  static std::string& value = *new std::string;
  return value;
}

// The kernel's name of the calling thread (at most 15 bytes).
std::string KernelThreadName() {
  char name[17] = {};
  if (prctl(PR_GET_NAME, name) != 0) return {};
  return name;
}

// A thread that was never named carries the name of the process's command,
// inherited from the thread that created it.
const std::string& ProcessCommandName() {
  static const std::string& cached = *new std::string([] {
    char buffer[64] = {};
    FILE* f = std::fopen("/proc/self/comm", "re");
    if (f) {
      if (!std::fgets(buffer, sizeof buffer, f)) buffer[0] = '\0';
      std::fclose(f);
    }
    std::string comm(buffer);
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    return comm;
  }());
  return cached;
}

struct ThreadIdentity {
  int number;
  bool isMain;
};

ThreadIdentity AssignThreadIdentity() {
  static std::atomic<int> next{2};
  if (gettid() == getpid()) return {1, true};
  return {next.fetch_add(1, std::memory_order_relaxed), false};
}

}  // namespace

std::string BundleIdentifier() {
  {
    std::lock_guard<std::mutex> lock(gBundleMutex);
    if (!BundleOverride().empty()) return BundleOverride();
  }
  static const std::string& cached = *new std::string([] {
    if (const char* id = NonEmptyEnv("KX_BUNDLE_IDENTIFIER")) return std::string(id);
    return ProcessName();
  }());
  return cached;
}

void SetBundleIdentifier(std::string identifier) {
  std::lock_guard<std::mutex> lock(gBundleMutex);
  BundleOverride() = std::move(identifier);
}

std::string ProcessName() {
  static const std::string& name = *new std::string(ExecutableName());
  return name;
}

std::string CurrentThreadDescription() {
  // The identity object's address stands for the thread, as a thread
  // object's address would; it lives exactly as long as the thread.
  thread_local const ThreadIdentity identity = AssignThreadIdentity();
  std::string name;
  if (identity.isMain) {
    name = "main";
  } else {
    name = KernelThreadName();
    if (name.empty() || name == ProcessCommandName()) name = "(null)";
  }
  char prefix[64];
  std::snprintf(prefix, sizeof prefix, "<KXThread: %p>{number = %d, name = ",
                static_cast<const void*>(&identity), identity.number);
  return prefix + name + "}";
}

std::string HomeDirectory() {
  static const std::string& cached = *new std::string([] {
    if (const char* home = AbsoluteEnv("HOME")) return std::string(home);
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::string buffer(size > 0 ? static_cast<size_t>(size) : 16384, '\0');
    struct passwd entry;
    struct passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir && found->pw_dir[0] == '/') {
      return std::string(found->pw_dir);
    }
    return std::string("/");
  }());
  return cached;
}

std::string RuntimeDirectory() {
  static const std::string& cached = *new std::string([] {
    // systemd-logind creates $XDG_RUNTIME_DIR private to the user; only the
    // fallback in the shared /tmp needs vetting.
    if (const char* dir = AbsoluteEnv("XDG_RUNTIME_DIR")) return std::string(dir);
    return PrivateDirectoryOrThrow("/tmp/kx-runtime-" + std::to_string(geteuid()));
  }());
  return cached;
}

std::string ServiceDirectory() {
  static const std::string& cached =
      *new std::string(RuntimeSubdirectory("KX_SERVICE_DIR", "kx-services"));
  return cached;
}

std::string NotifyDirectory() {
  static const std::string& cached =
      *new std::string(RuntimeSubdirectory("KX_NOTIFY_DIR", "kx-notify"));
  return cached;
}

std::string ConfigDirectory() {
  static const std::string& cached = *new std::string([] {
    if (const char* dir = AbsoluteEnv("XDG_CONFIG_HOME")) return std::string(dir);
    return HomeDirectory() + "/.config";
  }());
  return cached;
}

std::string UserLibraryDirectory() {
  static const std::string& cached = *new std::string([] {
    const char* dir = AbsoluteEnv("XDG_DATA_HOME");
    std::string path = dir ? std::string(dir) : HomeDirectory() + "/.local/share";
    std::string error;
    if (!MakeDirectories(path, &error)) throw DirectoryError(error);
    return path;
  }());
  return cached;
}

std::vector<std::string> DataDirectories() {
  const char* list = NonEmptyEnv("XDG_DATA_DIRS");
  std::string_view rest = list ? list : "/usr/local/share:/usr/share";
  std::vector<std::string> result;
  while (!rest.empty()) {
    const size_t colon = rest.find(':');
    const std::string_view entry = rest.substr(0, colon);
    if (!entry.empty() && entry[0] == '/') result.emplace_back(entry);
    if (colon == std::string_view::npos) break;
    rest.remove_prefix(colon + 1);
  }
  return result;
}

std::string ResourceDirectory() {
  static const std::string& cached = *new std::string([] {
    if (const char* dir = NonEmptyEnv("KX_RESOURCE_DIR")) return std::string(dir);
    for (const char* candidate : {KX_INSTALL_DATADIR, KX_BUILD_RESOURCE_DIR}) {
      if (char* resolved = realpath(candidate, nullptr)) {
        std::string path(resolved);
        std::free(resolved);
        return path;
      }
    }
    // Neither exists: name the installed location, so that failures to
    // open resources point at where they were expected.
    return std::string(KX_INSTALL_DATADIR);
  }());
  return cached;
}

}  // namespace kx
