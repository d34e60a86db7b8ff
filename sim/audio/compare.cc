#include "sim/audio/compare.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "kvox/sound/sound_file.h"
#include "sim/output.h"

namespace kvox::sim {
namespace {

constexpr int64_t kChunkFrames = 16384;

/// Samples as doubles, which represent every integer and float encoding exactly.
class FrameReader {
 public:
  /// Throws SoundFileError.
  explicit FrameReader(const std::filesystem::path& path)
      : name_(path.string()), reader_(path.string(), SoundReader::Kind::kAlsoPipes) {}

  const std::string& name() const { return name_; }
  int64_t frames() const { return static_cast<int64_t>(reader_.frame_count()); }
  int64_t channels() const { return reader_.channels(); }

  void Seek(int64_t frame) { reader_.Seek(static_cast<uint64_t>(frame)); }
  /// Up to `count` frames from where the last read ended; empty at the end.
  const std::vector<double>& Read(int64_t count) {
    samples_.resize(static_cast<size_t>(std::min(count, kChunkFrames) * channels()));
    samples_.resize(reader_.ReadDoubles(samples_) * reader_.channels());
    return samples_;
  }

  std::optional<int64_t> FirstSound() {
    Seek(0);
    for (int64_t frame = 0;;) {
      const std::vector<double>& samples = Read(kChunkFrames);
      if (samples.empty()) return std::nullopt;
      const auto sound = std::ranges::find_if(samples, [](double sample) { return sample != 0; });
      if (sound != samples.end()) return frame + (sound - samples.begin()) / channels();
      frame += static_cast<int64_t>(samples.size()) / channels();
    }
  }

 private:
  const std::string name_;
  SoundReader reader_;
  std::vector<double> samples_;
};

int No(const std::string& reason) {
  Print(stdout, "no: {}\n", reason);
  return 1;
}

/// Compares up to `frames` frames from both readers' positions.
int CompareFrames(FrameReader& source, FrameReader& recorded, int64_t frames, int64_t offset) {
  int64_t compared = 0;
  while (compared < frames) {
    const std::vector<double>& expected = source.Read(frames - compared);
    const std::vector<double>& found = recorded.Read(frames - compared);
    const int64_t got = std::min(static_cast<int64_t>(expected.size()) / source.channels(),
                                 static_cast<int64_t>(found.size()) / recorded.channels());
    if (got == 0) return No(fmt::format("{} frames agree, then a file cannot be read", compared));
    for (int64_t i = 0; i < got * recorded.channels(); ++i) {
      const int64_t frame = i / recorded.channels();
      const int64_t channel = i % recorded.channels();
      const int64_t from = source.channels() == 1 ? frame : i;
      const double want = expected[static_cast<size_t>(from)];
      const double have = found[static_cast<size_t>(i)];
      if (std::bit_cast<uint64_t>(want) == std::bit_cast<uint64_t>(have)) continue;
      return No(fmt::format(
          "{} frames agree, then frame {} of {} differs from frame {} of {}: channel {} has {}, "
          "expected {}",
          compared + frame, compared + frame + offset, recorded.name(), compared + frame,
          source.name(), channel, have, want));
    }
    compared += got;
  }
  Print(stdout, "yes: {} of {} frames of {} compared, from frame {} of {} on: all the same\n",
        compared, source.frames(), source.name(), offset, recorded.name());
  return 0;
}

}  // namespace

int CompareFiles(const std::filesystem::path& source_path,
                 const std::filesystem::path& recorded_path, bool skip_silence) try {
  FrameReader source(source_path);
  FrameReader recorded(recorded_path);
  if (source.channels() != 1 && source.channels() != recorded.channels()) {
    return No(fmt::format("{} has {} channels, {} has {}", source.name(), source.channels(),
                          recorded.name(), recorded.channels()));
  }
  int64_t offset = 0;
  if (skip_silence) {
    const auto wanted = source.FirstSound();
    const auto found = recorded.FirstSound();
    if (wanted && !found) return No(fmt::format("{} is silent", recorded.name()));
    if (wanted && *found < *wanted) {
      return No(fmt::format("the sound of {} begins at frame {}, that of {} at frame {} already",
                            source.name(), *wanted, recorded.name(), *found));
    }
    if (wanted) offset = *found - *wanted;
  }
  const int64_t frames = std::min(source.frames(), recorded.frames() - offset);
  if (frames <= 0) return No("there is nothing to compare");
  source.Seek(0);
  recorded.Seek(offset);
  return CompareFrames(source, recorded, frames, offset);
} catch (const SoundFileError& error) {
  Print(stderr, "kvosim compare: {}; expected a readable sound file, such as WAV\n", error.what());
  return 2;
}

}  // namespace kvox::sim
