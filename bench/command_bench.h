// The command path: calls of kvoxd against bare ones of the same size and the same thread hops.
#pragma once

#include <cstdint>

#include "bench/report.h"

namespace kvox::bench {

struct CommandEffort {
  unsigned rounds;
  unsigned calls;      // of a round
  unsigned client_ms;  // how long clients call in parallel
};

/// Round trips of one client. Throws std::runtime_error when they cannot be measured.
void MeasureCommands(const CommandEffort& effort, Report& report);

/// Eight client processes at once. Answers how many calls failed.
uint64_t MeasureParallelClients(const CommandEffort& effort, Report& report);

/// Role of a child: one of those clients, calling from one time of the steady clock (nanoseconds)
/// to another. Prints how many calls it made and how many failed. Answers an exit status.
int RunCaller(int64_t from_ns, int64_t until_ns);

}  // namespace kvox::bench
