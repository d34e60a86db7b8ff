// The session of `kvoxctl latency --probe`.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "libkvox/calls/daemon.h"

namespace kvox::client {

struct ClickResult {
  size_t sent = 0;                       // clicks
  std::vector<double> returned_ms = {};  // how long each that came back took, in audio time
  std::optional<Failure> over = {};      // the audio ended before
};

/// Sends ten clicks to a point whose audio the co-processor loops back to it, one after the other,
/// and measures how long they take; 20 s at most. Throws Failure. To be called before any thread
/// starts.
ClickResult SendClicks(Daemon& daemon, const std::string& point);

}  // namespace kvox::client
