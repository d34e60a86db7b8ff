// Where the audio goes that comes back to a tap. One thread at a time.
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

  /// Takes the audio of one packet, laid out as its format says. False when it is not kept; the
  /// reason was told once on standard error.
  virtual bool Write(const KvoxTapFormat& format, std::span<const std::byte> block) = 0;
};

/// A WAV file, begun with the first packet (what stood there before is replaced) and whole at any
/// moment. When the format changes, the next file begins: "a.wav", "a-2.wav", "a-3.wav" and so on.
/// Null when the file's directory is not there; `error` then says where the scenario names it.
std::unique_ptr<Sink> MakeWavSink(const SinkConfig& sink, std::string& error);

}  // namespace kvox::sim
