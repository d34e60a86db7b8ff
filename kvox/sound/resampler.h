// Changes the sample rate of audio, through libsamplerate, which is loaded when it is first needed.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

struct SRC_STATE_tag;

namespace kvox {

struct ResamplerCloser {
  void operator()(SRC_STATE_tag* state) const;
};

/// One thread.
class Resampler {
 public:
  /// Throws SoundFileError when the library is missing, or cannot convert between these rates.
  Resampler(size_t channels, double from_rate, double to_rate);

  /// Converts interleaved frames, and appends what comes of them to `out`. `end`: they are the
  /// last. Throws SoundFileError.
  void Convert(std::span<const double> frames, bool end, std::vector<double>& out);

 private:
  const size_t channels_;
  const double ratio_;
  std::unique_ptr<SRC_STATE_tag, ResamplerCloser> state_;
  std::vector<float> in_;
  std::vector<float> out_;
};

}  // namespace kvox
