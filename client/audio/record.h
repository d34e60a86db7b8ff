// kvoxctl record: keeps what a relay hands to its client in a WAV file.
#pragma once

#include <string>

#include "client/audio/relay_session.h"
#include "client/calls/call_deadline.h"

namespace kvox::client {

struct RecordOptions {
  int32_t processor = 0;
  std::string name;  // of the processor, as it was typed
  std::string path;
  double seconds = 0;  // of audio; 0 for no limit
  bool json = false;
  std::chrono::milliseconds wait = kLongestWait;  // for an answer of the daemon
};

/// Until interrupted. The file is written by this thread, so that a slow disk delays no block; what
/// does not fit into a BlockQueue meanwhile counts as missed.
/// Prints how much came and how many blocks were missed. Throws SoundFileError when the file cannot
/// be written.
StayEnd Record(const std::shared_ptr<IKvox>& kvox, const RecordOptions& options);

}  // namespace kvox::client
