#include "tests/support/test_environment.h"

#include <fstream>
#include <sstream>

#include "support/log_file.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

namespace kx::test {
namespace {

std::string& Root() {
  static std::string root;
  return root;
}

// The process that created the tree; recorded at creation, since a forked
// child that exits runs the same exit handlers.
pid_t gOwner = 0;

void RemoveRoot() {
  // Only the process that created the tree removes it; children started by a
  // test inherit the environment but not the ownership.
  if (getpid() != gOwner || Root().empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(Root(), ignored);
}

void Export(const char* name, const std::string& value) {
  setenv(name, value.c_str(), 1);
}

}  // namespace

const std::string& TestRoot() { return Root(); }

std::string HelperPath(const std::string& name) {
  const char* dir = std::getenv("KX_TEST_BINARY_DIR");
  return std::string(dir && *dir ? dir : KX_TEST_BINARY_DIR) + "/" + name;
}

void SetUpIsolatedEnvironment() {
  if (!Root().empty()) return;
  std::string pattern = std::filesystem::temp_directory_path() / "kxtest.XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  Root() = pattern;
  gOwner = getpid();
  namespace fs = std::filesystem;
  const fs::path root(Root());
  for (const char* sub : {"home", "home/.config", "home/.local/share", "run", "tmp"})
    fs::create_directories(root / sub);
  fs::permissions(root / "run", fs::perms::owner_all, fs::perm_options::replace);
  Export("HOME", (root / "home").string());
  Export("XDG_CONFIG_HOME", (root / "home/.config").string());
  Export("XDG_DATA_HOME", (root / "home/.local/share").string());
  Export("XDG_RUNTIME_DIR", (root / "run").string());
  Export("KX_SERVICE_DIR", (root / "run/kx-services").string());
  Export("KX_NOTIFY_DIR", (root / "run/kx-notify").string());
  Export("TMPDIR", (root / "tmp").string());
  std::atexit(RemoveRoot);
}

std::string ReadLiveLogFile() {
  std::ifstream in(logFilePathWithNumber(LogDirectoryPath(), 0));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kx::test
