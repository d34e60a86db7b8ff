// The packet path: kvoxd with one passthrough processor a stream against a bare relay.
#pragma once

#include <cstdint>
#include <optional>

#include "bench/report.h"

namespace kvox::bench {

enum class Pattern {
  kPingPong,  // the next packet when the last is back; everything on one core
  kPaced,     // one packet a stream every 10 ms; threads run where the system puts them
};

struct PacketCase {
  Pattern pattern;
  uint32_t payload_size;  // bytes
  unsigned streams;
  std::optional<double> cpu_aim;  // CPU time a packet against the relay's
};

struct PacketEffort {
  unsigned rounds;
  unsigned ping_pongs;  // packets of a round, all streams together
  unsigned periods;     // of a paced round
};

/// Measures relay and daemon in alternation and reports the case. Answers how many packets were
/// lost or came back wrong. Throws std::runtime_error when it cannot be measured.
uint64_t MeasurePackets(const PacketCase& packet_case, const PacketEffort& effort, Report& report);

}  // namespace kvox::bench
