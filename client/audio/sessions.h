// `kvoxctl record` and `kvoxctl play`. Both run until interrupted, print how much audio there was
// and how many blocks were missed, and return the exit status. They throw SoundFileError and
// Failure.
#pragma once

#include <memory>
#include <string>

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

}  // namespace kvox::client
