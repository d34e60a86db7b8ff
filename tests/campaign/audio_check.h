// Whether audio flows bit for bit, and since when.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/campaign/phase.h"
#include "tests/campaign/sim_control.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {

using StreamList = std::vector<const Stream*>;

/// Packets in a row that have to come back exact.
inline constexpr uint64_t kExactRow = 3;

/// Since when a stream has been exact: pure. Fed with the simulator's figures again and again.
class RowWatch {
 public:
  RowWatch(const Stream& stream, const TapFigures& before) : stream_(stream), before_(before) {}

  /// True once enough packets in a row have come back as they should, all of them sent after the
  /// watch began.
  bool Look(const TapFigures& now) const;

  /// How long the row has lasted, when Look answers true.
  Ms RowTime(const TapFigures& now) const;

 private:
  const Stream& stream_;
  const TapFigures before_;
};

struct Recovery {
  Ms slowest{};         // from the watch's beginning to the first packet of the row
  std::string failure;  // empty: every stream is exact
};

/// One thread.
class AudioCheck {
 public:
  /// The time begins now.
  AudioCheck(const SimControl& sim, const LoadMeter& load);

  /// Waits until every stream is exact. `limit` is for the recovery, from the beginning of the time
  /// on; it grows by what the machine's load takes.
  Recovery Await(const StreamList& streams, Ms limit);

 private:
  const SimControl& sim_;
  const LoadMeter& load_;
  const Clock::time_point begin_;
  const Ms lost_before_;
  const SimStatus before_;
};

}  // namespace kvox::campaign
