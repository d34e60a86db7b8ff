// The sessions of `kvoxctl record`, `play` and `latency --probe`. The first two run until
// interrupted, print how much audio there was and how many blocks were missed, and return the exit
// status. They throw SoundFileError and Failure.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "client/audio/relay_session.h"

namespace kvox::client {

/// Writes what a relay gives its client to a WAV file, until there are `seconds` of audio; 0 for no
/// limit. The file is written by this thread, so that a slow disk delays no block; blocks that do
/// not fit into a BlockQueue while it stalls count as missed.
ExitStatus Record(const std::shared_ptr<IKvox>& kvox, const SessionOptions& options,
                  const std::string& path, double seconds);

/// Feeds a relay from a sound file to its end, a block for each block that the relay sends. The
/// file has to have the relay's rate, and its channels or one.
ExitStatus Play(const std::shared_ptr<IKvox>& kvox, const SessionOptions& options,
                SoundReader file);

struct ProbeResult {
  ExitStatus end = kDone;
  size_t sent = 0;                       // clicks
  std::vector<double> returned_ms = {};  // how long each that came back took, in audio time
  bool unsupported = false;              // the relay's samples are neither int nor float
};

/// Sends ten clicks through a relay whose inject buffer the co-processor loops back to its tap
/// point, one after the other, and measures how long they take; 20 s at most.
ProbeResult Probe(const std::shared_ptr<IKvox>& kvox, const SessionOptions& options);

}  // namespace kvox::client
