// Peak and RMS levels of a stream. Pure; one thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "libkvox/audio/receiver.h"

namespace kvox::client {

/// No audio at all, and whatever is softer.
inline constexpr double kSilence_dbfs = -120;

struct Level {
  double peak_dbfs = kSilence_dbfs;
  double rms_dbfs = kSilence_dbfs;   // 0 for a full-scale square wave, -3.01 for a sine
  double hold_dbfs = kSilence_dbfs;  // the highest peak of the last second and a half
  uint64_t clipped = 0;              // samples at full scale since the begin
};

class LevelMeter {
 public:
  void Add(const Block& block);

  /// The levels of each channel since the last call.
  std::vector<Level> Take();

  /// Frames since the last Take().
  uint64_t frames() const { return frames_; }
  uint64_t missing() const { return missing_; }
  uint32_t sample_rate() const { return sample_rate_; }

 private:
  struct Channel {
    double peak = 0;
    double square_sum = 0;
    double hold = 0;
    uint64_t hold_until = 0;  // position
    uint64_t clipped = 0;
  };
  std::vector<Channel> channels_;
  std::vector<double> samples_;
  uint64_t frames_ = 0;
  uint64_t position_ = 0;
  uint64_t missing_ = 0;
  uint32_t sample_rate_ = 0;
};

/// "imic.0 L  ####----|  peak -12.3  rms -20.1  hold -9.0 dBFS  CLIP 3": `width` characters of bar
/// from -60 to 0 dBFS.
std::string BarOf(const Level& level, size_t width);

}  // namespace kvox::client
