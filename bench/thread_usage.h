// CPU usage of another process's threads, from /proc.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string_view>

namespace kvox::bench {

struct ThreadUsage {
  double cpu_ns = 0;
  uint64_t sleeps = 0;       // voluntary context switches: the thread had to wait
  uint64_t preemptions = 0;  // involuntary ones

  ThreadUsage& operator+=(const ThreadUsage& other) {
    cpu_ns += other.cpu_ns;
    sleeps += other.sleeps;
    preemptions += other.preemptions;
    return *this;
  }
  ThreadUsage operator-(const ThreadUsage& before) const {
    return {cpu_ns - before.cpu_ns, sleeps - before.sleeps, preemptions - before.preemptions};
  }
};

struct ProcessUsage {
  ThreadUsage chosen;  // threads whose name begins with the prefix
  ThreadUsage others;
};

/// CPU times are exact to the nanosecond where the kernel shows them (schedstat or sched), to the
/// clock tick elsewhere. Threads that have ended are not counted.
ProcessUsage ReadUsage(pid_t pid, std::string_view prefix);

}  // namespace kvox::bench
