// Counts the packets lost in a stretch of time, and those of them with a known cause.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/campaign/log_analyzer.h"
#include "tests/campaign/sim_control.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {

/// The simulator's counters and the figures of the daemon's log at one time.
struct LossSample {
  SimStatus sim;
  LogAnalyzer log;
};

struct LossReport {
  uint64_t passed = 0;        // packets that came back
  uint64_t timing = 0;        // dropped because they came at the wrong time, by the daemon's log
  uint64_t slow_clients = 0;  // blocks to which a relay's client replied too late
  uint64_t lost = 0;          // without a cause
  std::vector<std::string> streams = {};  // of the lost ones, a line each
};

/// Of a stretch of time without a fault in which clients changed these streams without loss; of all
/// streams unless they are named.
LossReport LossesBetween(const LossSample& before, const LossSample& after,
                         const StreamList& streams);
LossReport LossesBetween(const LossSample& before, const LossSample& after);

/// Packets that have not come back, whatever the cause.
uint64_t MissingBetween(const SimStatus& before, const SimStatus& after);

}  // namespace kvox::campaign
