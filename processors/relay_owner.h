// What relays need of whoever makes them.
#pragma once

#include <cstdint>

#include "kvox/common/four_cc.h"
#include "processors/thread_reaper.h"

namespace kvox {

/// Outlives every relay. Any thread but an I/O thread may call.
class RelayOwner {
 public:
  virtual ~RelayOwner() = default;

  /// Switches off the use case that a relay of this id stands for, because its client has died.
  /// Answers 0, or a status of the commands.
  virtual int32_t DisableUseCaseOf(FourCc relay) = 0;

  /// Runs the threads that call clients.
  virtual ThreadReaper& client_threads() = 0;
};

}  // namespace kvox
