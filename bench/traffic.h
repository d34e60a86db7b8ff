// How packets follow each other.
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "bench/lane.h"

namespace kvox::bench {

using Lanes = std::vector<std::unique_ptr<Lane>>;

/// Makes the calling thread preempt ordinary ones, while the thread under measurement preempts it.
/// False when the system does not allow it.
bool RaisePriority();

/// Ordinary priority again.
void DropPriority();

/// Sends one packet after the other over each lane in turn, each when the one before is back.
void PlayPingPong(const Lanes& lanes, unsigned packets);

/// Sends a packet over every lane in each period, the lanes one after the other within it.
void PlayPaced(const Lanes& lanes, unsigned periods, std::chrono::nanoseconds period);

}  // namespace kvox::bench
