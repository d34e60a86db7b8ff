#include "sim/audio/compare.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <optional>
#include <utility>
#include <vector>

#include "sim/audio/sound_file.h"
#include "sim/output.h"

namespace kvox::sim {
namespace {

constexpr sf_count_t kChunkFrames = 16384;

/// Samples as doubles, in which every integer and float encoding has a value of its own.
class FrameReader {
 public:
  bool Open(const std::filesystem::path& path) {
    std::string error;
    name_ = path.string();
    file_ = OpenSoundFile(path, info_, error);
    if (file_ == nullptr) Print(stderr, "kvosim compare: {}\n", error);
    return file_ != nullptr;
  }

  const std::string& name() const { return name_; }
  sf_count_t frames() const { return info_.frames; }
  sf_count_t channels() const { return info_.channels; }

  void Seek(sf_count_t frame) { sf_seek(file_.get(), frame, SEEK_SET); }
  /// Up to `count` frames from where the last read ended; empty at the end.
  const std::vector<double>& Read(sf_count_t count) {
    samples_.resize(static_cast<size_t>(std::min(count, kChunkFrames) * channels()));
    const sf_count_t read =
        sf_readf_double(file_.get(), samples_.data(), std::min(count, kChunkFrames));
    samples_.resize(static_cast<size_t>(std::max<sf_count_t>(read, 0) * channels()));
    return samples_;
  }

  std::optional<sf_count_t> FirstSound() {
    Seek(0);
    for (sf_count_t frame = 0;;) {
      const std::vector<double>& samples = Read(kChunkFrames);
      if (samples.empty()) return std::nullopt;
      const auto sound = std::ranges::find_if(samples, [](double sample) { return sample != 0; });
      if (sound != samples.end()) return frame + (sound - samples.begin()) / channels();
      frame += static_cast<sf_count_t>(samples.size()) / channels();
    }
  }

 private:
  std::string name_;
  SF_INFO info_{};
  SoundFile file_;
  std::vector<double> samples_;
};

int No(const std::string& reason) {
  Print(stdout, "no: {}\n", reason);
  return 1;
}

/// Compares up to `frames` frames from where both readers stand.
int CompareFrames(FrameReader& source, FrameReader& recorded, sf_count_t frames,
                  sf_count_t offset) {
  sf_count_t compared = 0;
  while (compared < frames) {
    const std::vector<double>& expected = source.Read(frames - compared);
    const std::vector<double>& found = recorded.Read(frames - compared);
    const sf_count_t got = std::min(static_cast<sf_count_t>(expected.size()) / source.channels(),
                                    static_cast<sf_count_t>(found.size()) / recorded.channels());
    if (got == 0) return No(fmt::format("{} frames agree, then a file cannot be read", compared));
    for (sf_count_t i = 0; i < got * recorded.channels(); ++i) {
      const sf_count_t frame = i / recorded.channels();
      const sf_count_t channel = i % recorded.channels();
      const sf_count_t from = source.channels() == 1 ? frame : i;
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
                 const std::filesystem::path& recorded_path, bool skip_silence) {
  FrameReader source;
  FrameReader recorded;
  if (!source.Open(source_path) || !recorded.Open(recorded_path)) return 2;
  if (source.channels() != 1 && source.channels() != recorded.channels()) {
    return No(fmt::format("{} has {} channels, {} has {}", source.name(), source.channels(),
                          recorded.name(), recorded.channels()));
  }
  sf_count_t offset = 0;
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
  const sf_count_t frames = std::min(source.frames(), recorded.frames() - offset);
  if (frames <= 0) return No("there is nothing to compare");
  source.Seek(0);
  recorded.Seek(offset);
  return CompareFrames(source, recorded, frames, offset);
}

}  // namespace kvox::sim
