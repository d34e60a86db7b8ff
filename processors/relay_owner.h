// What relays need of whoever makes them.
#pragma once

#include <cstdint>

#include "processors/byte_budget.h"
#include "processors/thread_reaper.h"

namespace kvox {

class KvoxProcessor;

/// Outlives every relay. Any thread but an I/O thread may call.
class RelayOwner {
 public:
  virtual ~RelayOwner() = default;

  /// Switches off the use case that this relay stands for, because its client has died; not when
  /// another relay has taken its place or another client the dead one's meanwhile. Answers 0, or a
  /// status of the commands.
  virtual int32_t DisableUseCaseOf(const KvoxProcessor& relay) = 0;

  /// Runs the threads that call clients.
  virtual ThreadReaper& client_threads() = 0;

  /// Where what clients have sent waits. Outlives every relay's blocks as well.
  virtual ByteBudget& sent_audio_room() = 0;
};

}  // namespace kvox
