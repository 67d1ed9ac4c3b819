// What a process holds that a leak makes grow: open descriptors, memory
// mappings and threads, read from /proc.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace kx::soak {

struct ProcessCounts {
  size_t descriptors = 0;  // entries of /proc/<pid>/fd
  size_t mappings = 0;     // lines of /proc/<pid>/maps
  size_t threads = 0;      // entries of /proc/<pid>/task

  // Every count at most the other's.
  bool within(const ProcessCounts& bound) const {
    return descriptors <= bound.descriptors && mappings <= bound.mappings && threads <= bound.threads;
  }
  std::string describe() const;
};

// The counts of `pid` (0: this process); all zero once it is gone.
ProcessCounts ReadProcessCounts(pid_t pid = 0);

// What the descriptors of `pid` refer to, one per line, for failure reports.
std::string DescriptorTargets(pid_t pid = 0);

}  // namespace kx::soak
