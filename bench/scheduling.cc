#include "bench/scheduling.h"

#include <sched.h>

namespace kvox::bench {
namespace {

/// The cores that this process could use when it started.
const cpu_set_t& UsableCores() {
  static const cpu_set_t cores = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return set;
  }();
  return cores;
}

}  // namespace

int MeasuringCore() {
  int core = CPU_SETSIZE - 1;
  while (core > 0 && !CPU_ISSET(static_cast<size_t>(core), &UsableCores())) --core;
  return core;
}

void BindToCore(std::optional<int> core) {
  cpu_set_t set = UsableCores();
  if (core) {
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(*core), &set);
  }
  sched_setaffinity(0, sizeof set, &set);
}

bool RaisePriority() {
  sched_param param{};
  param.sched_priority = sched_get_priority_max(SCHED_FIFO) / 2;
  return sched_setscheduler(0, SCHED_FIFO, &param) == 0;
}

void DropPriority() {
  sched_param param{};
  sched_setscheduler(0, SCHED_OTHER, &param);
}

}  // namespace kvox::bench
