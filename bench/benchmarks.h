// The groups of measurements. All throw std::runtime_error when something cannot be measured.
#pragma once

#include <cstdint>
#include <optional>

#include "bench/report.h"

namespace kvox::bench {

// The packet path: kvoxd with one passthrough processor per stream against a bare relay.

enum class Pattern {
  kPingPong,  // the next packet when the last is back; everything on one core
  kPaced,     // one packet per stream every 10 ms; threads run where the system puts them
};

struct PacketCase {
  Pattern pattern;
  uint32_t payload_size;  // bytes
  unsigned streams;
  double cpu_aim;  // CPU time per packet against the relay's
};

struct PacketWorkload {
  unsigned rounds;
  unsigned ping_pongs;  // packets per round, all streams together
  unsigned periods;     // of a paced round
};

/// Relay and daemon in alternation. Returns how many packets were lost or came back wrong.
uint64_t MeasurePackets(const PacketCase& packet_case, const PacketWorkload& workload,
                        Report& report);

/// What `kvosim record` adds to a packet's way. Returns likewise.
uint64_t MeasureRecorder(const PacketCase& packet_case, const PacketWorkload& workload,
                         Report& report);

// The command path: calls of kvoxd against bare ones of the same size with the same thread hops.

struct CommandWorkload {
  unsigned rounds;
  unsigned calls;      // per round
  unsigned client_ms;  // how long clients call in parallel
};

/// Round trips of one client.
void MeasureCommands(const CommandWorkload& workload, Report& report);

/// Eight client processes at once. Returns how many calls failed.
uint64_t MeasureParallelClients(const CommandWorkload& workload, Report& report);

/// Role of a child: one of those clients, calling from one time of the steady clock (nanoseconds)
/// to another. Prints how many calls it made and how many failed. Returns an exit status.
int RunClient(int64_t from_ns, int64_t until_ns);

// Resources of whole processes.

/// `kvoxctl call Ping` as a process, and `true`, in alternation.
void MeasureClientProcess(unsigned runs, Report& report);

/// Wake-ups of the daemon in `seconds` with devices present and nothing enabled, and its memory.
void MeasureIdle(unsigned seconds, Report& report);

/// `kvoxctl top --measure` on a terminal for `seconds` beside 32 paced streams. Returns how many
/// packets were lost or came back wrong.
uint64_t MeasureTop(unsigned seconds, Report& report);

}  // namespace kvox::bench
