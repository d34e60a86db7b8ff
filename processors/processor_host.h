// What processors need from the service that created them.
#pragma once

#include <cstdint>
#include <memory>

#include "kvox/common/byte_budget.h"
#include "kvox/common/thread_group.h"

namespace kvox {

class KvoxProcessor;

/// Outlives every processor. Any thread but an I/O thread may call.
class ProcessorHost {
 public:
  virtual ~ProcessorHost() = default;

  /// The processor's block_state() has changed. Hands the new one to the I/O thread and returns
  /// when no block uses the old one any more. The caller holds no lock that ProcessBlock takes.
  virtual void BlockStateChanged(const KvoxProcessor& processor) = 0;

  /// Switches off the use case of a relay whose client has died, unless the relay or its client has
  /// been replaced since. Returns at once, because the caller's thread may be one of the few that
  /// serve commands; a failure is logged.
  virtual void EndUseCaseOf(std::shared_ptr<const KvoxProcessor> relay) = 0;

  virtual ThreadGroup& client_threads() = 0;

  /// Memory for what clients have sent. Outlives the blocks too.
  virtual ByteBudget& sent_audio_budget() = 0;
};

}  // namespace kvox
