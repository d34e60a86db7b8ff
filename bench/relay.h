// A minimal packet relay, the baseline for the daemon.
#pragma once

#include <string>

namespace kvox::bench {

/// How the names of RunRelay's threads begin; a number follows.
inline constexpr char kRelayThread[] = "relay";

/// Role of a child: for each stream a thread under SCHED_FIFO that polls the tap-out FIFO, reads,
/// copies, and writes once to the inject FIFO. Returns only on failure, with an exit status.
int RunRelay(const std::string& devices, unsigned streams);

}  // namespace kvox::bench
