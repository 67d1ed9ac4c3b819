#include "tests/crash_soak/process_counts.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

namespace kx::soak {
namespace {

size_t Entries(const std::string& directory) {
  std::error_code ec;
  size_t n = 0;
  for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) ++n;
  return n;
}

// Counts the lines of a maps file with and without a path ("[heap]",
// "[stack]" and the like count as anonymous).
void CountMappings(const std::string& file, ProcessCounts& counts) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    const size_t path = line.find('/');
    if (path != std::string::npos) {
      ++counts.fileMappings;
    } else {
      ++counts.anonymousMappings;
    }
  }
}

}  // namespace

std::string ProcessCounts::describe() const {
  return std::to_string(descriptors) + " descriptors, " + std::to_string(fileMappings) + " file and " +
         std::to_string(anonymousMappings) + " anonymous mappings, " + std::to_string(threads) + " threads";
}

ProcessCounts ReadProcessCounts(pid_t pid) {
  const std::string proc = "/proc/" + (pid > 0 ? std::to_string(pid) : std::string("self"));
  ProcessCounts counts;
  // Reading our own fd/ holds one descriptor of the reader's.
  const size_t fds = Entries(proc + "/fd");
  counts.descriptors = pid > 0 || fds == 0 ? fds : fds - 1;
  CountMappings(proc + "/maps", counts);
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

std::string Mappings(pid_t pid) {
  std::ifstream in("/proc/" + (pid > 0 ? std::to_string(pid) : std::string("self")) + "/maps");
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string NewLines(const std::string& before, const std::string& now) {
  std::set<std::string> old;
  std::istringstream b(before), n(now);
  for (std::string line; std::getline(b, line);) old.insert(line);
  std::string added;
  for (std::string line; std::getline(n, line);)
    if (!old.count(line)) added += "  " + line + "\n";
  return added;
}

}  // namespace kx::soak
