// Judges arrival times of packets. Two early or two late packets with no punctual one in between
// mean that the stream has slipped, and the reader should resync.
//
// One thread at a time, the buffer's I/O thread. RT: nothing here allocates, locks or logs.
#pragma once

#include <cstdint>

#include "kvox/common/tap_format.h"
#include "kvox/flight/layout.h"

namespace kvox {

struct TimingVerdict {
  using Arrival = flight::Arrival;
  Arrival arrival = Arrival::kOnTime;  // also for packets that cannot be timed
  /// The second early or late packet in a row: drop it and resynchronise.
  bool slipped = false;
  uint64_t period_ns = 0;  // nominal; 0 when it has none
};

class TimingJudge {
 public:
  /// Judges the packet that arrived at `now_ns` (GetTimestampNs). The first packet, and packets
  /// whose header has no sample rate, no frame size or a frame larger than the payload, are not
  /// timed; their arrival is still remembered.
  TimingVerdict Judge(uint64_t now_ns, const KvoxTapFormat& format, uint32_t payload_size);

  /// Time between the last two packets that were timed, in ms; 0 before.
  float elapsed_ms() const { return elapsed_ms_; }

  /// The last packet's verdict.
  TimingVerdict::Arrival last() const { return last_; }

 private:
  TimingVerdict::Arrival Compare(uint32_t period_ms) const;

  bool seen_any_ = false;
  TimingVerdict::Arrival last_ = TimingVerdict::Arrival::kOnTime;
  uint64_t previous_ns_ = 0;
  float elapsed_ms_ = 0;
  int drift_ = 0;  // late packets less early ones since the last on time
};

/// Whether packets of this shape have a period: a rate, and a frame that fits into the payload.
bool IsTimed(const KvoxTapFormat& format, uint32_t payload_size);

/// Packets between two report lines: two seconds' worth, at least 1; 100 if packets are not timed.
uint32_t ReportInterval(const KvoxTapFormat& format, uint32_t payload_size);

}  // namespace kvox
