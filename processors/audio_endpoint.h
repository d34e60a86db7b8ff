// What a processor sees of the buffers it is tied to.
#pragma once

#include <cstdint>
#include <string>

#include "kvox/common/tap_format.h"

namespace kvox {

class KvoxProcessor;

/// One end of a processor's connection: a tap-out buffer it reads or an inject buffer it writes.
/// Every function may be called from any thread; none may be called from the packet path.
class AudioEndpoint {
 public:
  virtual ~AudioEndpoint() = default;

  /// Constant for the endpoint's life.
  virtual const std::string& name() const = 0;
  virtual bool is_tapout() const = 0;

  /// Format of the audio that arrives here; all zero while none has arrived.
  virtual KvoxTapFormat RxFormat() const = 0;

  /// Takes the processor out of those that read this endpoint, and clears its input if that is
  /// this one. Answers 0, or -1 when it was not among them.
  virtual int32_t UnregisterOutput(KvoxProcessor* processor) = 0;

  /// Clears the processor that writes this endpoint, and that processor's output if that is
  /// this one.
  virtual void UnregisterInput() = 0;

  /// A processor that reads this endpoint writes to another place now.
  virtual void RefreshRoutes() = 0;

  /// Passes a setting on to the tap point that feeds this endpoint. Answers 0, also when no tap
  /// point is known, or 1 when the co-processor refused.
  virtual int32_t ForwardBlockLength(uint32_t frames) = 0;
  virtual int32_t ForwardJitterBuffer(uint32_t size) = 0;
};

}  // namespace kvox
