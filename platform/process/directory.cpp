#include "platform/process/directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kx {
namespace {

std::string Describe(const std::string& path, const char* what) {
  return "\"" + path + "\" " + what;
}

std::string DescribeErrno(const std::string& path, const char* action, int error) {
  return std::string("cannot ") + action + " \"" + path + "\": " + std::strerror(error);
}

// mkdir for one component; an existing directory (or a link to one) is fine.
bool MakeOne(const std::string& path, std::string* error) {
  if (mkdir(path.c_str(), 0700) == 0) return true;
  const int saved = errno;
  struct stat st;
  if (saved == EEXIST && stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    *error = Describe(path, "exists and is not a directory");
    return false;
  }
  *error = DescribeErrno(path, "create directory", saved);
  return false;
}

}  // namespace

bool MakeDirectories(const std::string& path, std::string* error) {
  if (path.empty() || path[0] != '/') {
    *error = Describe(path, "is not an absolute path");
    return false;
  }
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    *error = Describe(path, "exists and is not a directory");
    return false;
  }
  // Walk the components from the root; each prefix ends before a '/'.
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (path[slash - 1] == '/') continue;  // "//" in the middle
    if (!MakeOne(path.substr(0, slash), error)) return false;
  }
  if (path.back() == '/') return true;
  return MakeOne(path, error);
}

bool MakePrivateDirectory(const std::string& path, std::string* error) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    // ENOTDIR: a file stands where a parent belongs; MakeDirectories names it.
    if (errno != ENOENT && errno != ENOTDIR) {
      *error = DescribeErrno(path, "inspect", errno);
      return false;
    }
    if (!MakeDirectories(path, error)) return false;
    if (lstat(path.c_str(), &st) != 0) {
      *error = DescribeErrno(path, "inspect", errno);
      return false;
    }
  }
  if (S_ISLNK(st.st_mode)) {
    *error = Describe(path, "is a symbolic link, not a private directory");
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    *error = Describe(path, "exists and is not a directory");
    return false;
  }
  if (st.st_uid != geteuid()) {
    *error = Describe(path, "belongs to another user (uid ") + std::to_string(st.st_uid) + ")";
    return false;
  }
  if ((st.st_mode & 077) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%03o", static_cast<unsigned>(st.st_mode & 0777));
    *error = Describe(path, "is accessible to other users (mode ") + mode + ")";
    return false;
  }
  return true;
}

}  // namespace kx
