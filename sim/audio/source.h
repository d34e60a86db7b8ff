// The audio that a tap delivers. A source can be read at any position and always has the same
// samples there, so that skipped blocks cost nothing and two runs of a scenario are alike; but for
// a loop, which delivers what was injected. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "sim/scenario/scenario.h"

namespace kvox::sim {

class Source {
 public:
  virtual ~Source() = default;

  /// Fills `block`, a whole number of frames, with interleaved samples in the tap's encoding; the
  /// first is that of frame `frame` since the stream began.
  virtual void Read(uint64_t frame, std::span<std::byte> block) = 0;

  /// The payload of a packet that came back on the tap's inject device.
  virtual void Returned(std::span<const std::byte>) {}
};

/// Null when the tap's file cannot be used: `error` then says where the scenario names it, what is
/// wrong and what is expected.
std::unique_ptr<Source> MakeSource(const TapConfig& tap, std::string& error);

/// The same for a tap with a WAV source.
std::unique_ptr<Source> MakeWavSource(const TapConfig& tap, std::string& error);

}  // namespace kvox::sim
