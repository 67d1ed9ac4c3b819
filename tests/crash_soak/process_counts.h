// What a process holds that a leak makes grow: open descriptors, memory
// mappings and threads, read from /proc.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace kx::soak {

struct ProcessCounts {
  size_t descriptors = 0;        // entries of /proc/<pid>/fd
  size_t fileMappings = 0;       // lines of /proc/<pid>/maps naming a file (shared memory too)
  size_t anonymousMappings = 0;  // the other lines: heaps, stacks, allocator arenas
  size_t threads = 0;            // entries of /proc/<pid>/task

  // Every count at most the other's.
  bool within(const ProcessCounts& bound) const {
    return descriptors <= bound.descriptors && fileMappings <= bound.fileMappings &&
           anonymousMappings <= bound.anonymousMappings && threads <= bound.threads;
  }
  ProcessCounts plus(const ProcessCounts& allowance) const {
    return {descriptors + allowance.descriptors, fileMappings + allowance.fileMappings,
            anonymousMappings + allowance.anonymousMappings, threads + allowance.threads};
  }
  std::string describe() const;
};

// The counts of `pid` (0: this process); all zero once it is gone.
ProcessCounts ReadProcessCounts(pid_t pid = 0);

// What the descriptors of `pid` refer to, one per line, for failure reports.
std::string DescriptorTargets(pid_t pid = 0);
// The mappings of `pid` (/proc/<pid>/maps), for failure reports.
std::string Mappings(pid_t pid = 0);
// The lines of `now` that `before` does not have.
std::string NewLines(const std::string& before, const std::string& now);

}  // namespace kx::soak
