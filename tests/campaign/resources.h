// What a process has: threads, descriptors, memory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace kvox::campaign {

struct Resources {
  int descriptors = 0;
  int threads = 0;
  uint64_t memory_kib = 0;  // resident

  /// "33 descriptors, 14 threads, 9216 KiB"
  std::string Text() const;
};

/// Zeros when the process is not there.
Resources ReadResources(pid_t pid);

/// What every thread and descriptor of the process is, a line each: to find the one too many.
std::string DescribeResources(pid_t pid);

}  // namespace kvox::campaign
