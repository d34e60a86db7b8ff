// kvoxctl play: feeds a relay from a sound file, a block for each block the relay hands over.
#pragma once

#include <string>

#include "client/audio/relay_session.h"
#include "client/calls/call_deadline.h"

namespace kvox::client {

struct PlayOptions {
  int32_t processor = 0;
  std::string name;  // of the processor, as it was typed
  bool json = false;
  std::chrono::milliseconds wait = kLongestWait;  // for an answer of the daemon
};

/// To the file's end, or until interrupted. Prints how much was played and how many blocks were
/// missed. Throws SoundFileError when the file is not of the relay's shape.
StayEnd Play(const std::shared_ptr<IKvox>& kvox, SoundReader file, const PlayOptions& options);

}  // namespace kvox::client
