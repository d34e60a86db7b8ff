// Which packets were lost in a stretch of time, and for which of them there is a reason. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/campaign/log_reader.h"
#include "tests/campaign/sim_control.h"

namespace kvox::campaign {

/// A moment: what the simulator counts and what the daemon's log told.
struct Moment {
  SimStatus sim;
  LogLedger log;
};

struct LossReport {
  uint64_t passed = 0;        // packets that came back
  uint64_t timing = 0;        // dropped because they came at the wrong time, by the daemon's log
  uint64_t slow_clients = 0;  // blocks that a relay's client answered too late
  uint64_t lost = 0;          // without a reason
  std::vector<std::string> streams;  // of the latter, a line each
};

/// What happened from one moment to another without a fault in between. Streams that clients switch
/// are judged too, if they do it in good order.
LossReport LossesBetween(const Moment& before, const Moment& after);

/// Packets that have not come back, whatever the reason.
uint64_t MissingBetween(const SimStatus& before, const SimStatus& after);

}  // namespace kvox::campaign
