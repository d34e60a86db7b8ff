// Checks whether audio is bit-exact, and since when.
#pragma once

#include <string>

#include "tests/campaign/run_conditions.h"
#include "tests/campaign/sim_control.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {

/// Consecutive packets that must come back exact.
inline constexpr uint64_t kExactPackets = 3;

/// How many packets came back as they should, up to the last one that came back, with all of them
/// sent since `before`.
uint64_t ExactRun(const Stream& stream, const TapStats& before, const TapStats& now);

struct Recovery {
  Ms slowest{};         // from the start of the check to the first packet of a stream's run
  std::string failure;  // empty: every stream is exact
};

/// One thread.
class AudioCheck {
 public:
  /// Starts now.
  AudioCheck(const SimControl& sim, const LagMeter& lag);

  /// Waits until every stream is exact. `limit` is for the recovery, from the start of the check
  /// on; it grows with the machine's lag. Throws SimError.
  Recovery Await(const StreamList& streams, Ms limit) const;

 private:
  const SimControl& sim_;
  const LagMeter& lag_;
  const Clock::time_point begin_;
  const Ms lag_before_;
  const SimStatus before_;
};

}  // namespace kvox::campaign
