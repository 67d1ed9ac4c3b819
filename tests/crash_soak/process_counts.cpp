#include "tests/crash_soak/process_counts.h"

#include <filesystem>
#include <fstream>

namespace kx::soak {
namespace {

size_t Entries(const std::string& directory) {
  std::error_code ec;
  size_t n = 0;
  for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) ++n;
  return n;
}

size_t Lines(const std::string& file) {
  std::ifstream in(file);
  size_t n = 0;
  for (std::string line; std::getline(in, line);) ++n;
  return n;
}

}  // namespace

std::string ProcessCounts::describe() const {
  return std::to_string(descriptors) + " descriptors, " + std::to_string(mappings) + " mappings, " +
         std::to_string(threads) + " threads";
}

ProcessCounts ReadProcessCounts(pid_t pid) {
  const std::string proc = "/proc/" + (pid > 0 ? std::to_string(pid) : std::string("self"));
  ProcessCounts counts;
  // Reading our own fd/ holds one descriptor of the reader's.
  const size_t fds = Entries(proc + "/fd");
  counts.descriptors = pid > 0 || fds == 0 ? fds : fds - 1;
  counts.mappings = Lines(proc + "/maps");
  counts.threads = Entries(proc + "/task");
  return counts;
}

std::string DescriptorTargets(pid_t pid) {
  const std::string dir = "/proc/" + (pid > 0 ? std::to_string(pid) : std::string("self")) + "/fd";
  std::string lines;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code ignored;
    lines += "  " + it->path().filename().string() + " -> " +
             std::filesystem::read_symlink(it->path(), ignored).string() + "\n";
  }
  return lines;
}

}  // namespace kx::soak
