// Where a tap's returning audio goes. One thread at a time.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "kvox/common/tap_format.h"
#include "sim/scenario/scenario.h"

namespace kvox::sim {

class Sink {
 public:
  virtual ~Sink() = default;

  /// Writes the audio of one packet, which has the layout of its format. False when it is not kept;
  /// the reason was printed once on standard error.
  virtual bool Write(const KvoxTapFormat& format, std::span<const std::byte> block) = 0;
};

/// A WAV file, created (or replaced) with the first packet and valid at any moment. When the format
/// changes, a new file begins: "a.wav", "a-2.wav", "a-3.wav" and so on. Null when the file's
/// directory is missing; `error` then says where the scenario names it.
std::unique_ptr<Sink> MakeWavSink(const SinkConfig& sink, std::string& error);

}  // namespace kvox::sim
