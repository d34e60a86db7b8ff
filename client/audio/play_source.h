// The audio of a sound file in the form that a point takes.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "kvox/sound/resampler.h"
#include "kvox/sound/sound_file.h"

namespace kvox::client {

struct PlayOptions {
  bool loop = false;    // begin again at the end
  bool convert = true;  // sample rate and channels, where they differ
  double gain_db = 0;
};

/// One thread.
class PlaySource {
 public:
  PlaySource(SoundReader file, const PlayOptions& options)
      : file_(std::move(file)), options_(options) {}

  /// To be called once, before Fill(). Throws SoundFileError when the file does not fit.
  void ConvertTo(const SoundFormat& format);

  /// Fills whole frames, with silence behind the end of the file. False at its end: nothing of it
  /// is in there. Throws SoundFileError.
  bool Fill(std::span<std::byte> block);

 private:
  bool FillAsIs(std::span<std::byte> block);
  bool FillConverted(std::span<std::byte> block);
  void ReadMore();

  SoundReader file_;
  const PlayOptions options_;
  SoundFormat format_;
  bool as_is_ = true;  // no sample changes its value
  double gain_ = 1;
  std::optional<Resampler> resampler_;
  std::vector<double> ready_;  // frames with the point's channels, at its rate
  bool at_end_ = false;
};

}  // namespace kvox::client
