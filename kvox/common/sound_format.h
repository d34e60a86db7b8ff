// The format of interleaved audio.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kvox/common/tap_format.h"

namespace kvox {

/// Interleaved audio.
struct SoundFormat {
  uint32_t sample_rate = 0;  // Hz
  uint32_t channels = 0;
  uint32_t bits = 0;  // of a sample
  Kvox::DataFormat encoding = Kvox::DataFormat::INT;

  size_t FrameSize() const { return size_t{channels} * (bits / 8); }
  bool operator==(const SoundFormat&) const = default;
};

/// "48000 Hz, 2 channels, int16"
std::string Describe(const SoundFormat& format);

}  // namespace kvox
