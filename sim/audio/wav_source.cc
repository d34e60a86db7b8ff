#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "sim/audio/samples.h"
#include "sim/audio/sound_file.h"
#include "sim/audio/source.h"

namespace kvox::sim {
namespace {

/// How samples get from the file into the tap's encoding.
enum class Route {
  kRaw,     // the file's own bytes
  kShort,   // integers of either width: exact, or cut to 16 bits
  kInt,     // the same for 32 bits
  kFloat,   // exact for float and for integers of up to 24 bits
  kDouble,  // anything else: by value, rounded and clipped
};

Route ChooseRoute(int file_format, Encoding encoding) {
  const int subtype = file_format & SF_FORMAT_SUBMASK;
  const bool integers = subtype == SF_FORMAT_PCM_S8 || subtype == SF_FORMAT_PCM_U8 ||
                        subtype == SF_FORMAT_PCM_16 || subtype == SF_FORMAT_PCM_24 ||
                        subtype == SF_FORMAT_PCM_32 || subtype == SF_FORMAT_ULAW ||
                        subtype == SF_FORMAT_ALAW;
  switch (encoding) {
    case Encoding::kInt16:
      return integers ? Route::kShort : Route::kDouble;
    case Encoding::kInt32:
      return integers ? Route::kInt : Route::kDouble;
    case Encoding::kFloat32:
      return Route::kFloat;
    case Encoding::kUlaw8:
      break;
  }
  return subtype == SF_FORMAT_ULAW ? Route::kRaw : Route::kDouble;
}

template <typename Sample>
using Reader = sf_count_t (*)(SNDFILE*, Sample*, sf_count_t);

class WavSource : public Source {
 public:
  WavSource(SoundFile file, const SF_INFO& info, const TapConfig& tap)
      : file_(std::move(file)),
        file_channels_(static_cast<size_t>(info.channels)),
        total_(static_cast<uint64_t>(info.frames)),
        format_(tap.format),
        encoding_(*EncodingOf(tap.format)),
        route_(ChooseRoute(info.format, encoding_)),
        repeat_(tap.source.repeat) {}

  void Read(uint64_t frame, std::span<std::byte> block) override {
    const size_t frame_size = FrameSize(format_);
    while (!block.empty()) {
      const uint64_t at = repeat_ && total_ > 0 ? frame % total_ : frame;
      const uint64_t wanted = block.size() / frame_size;
      const size_t frames =
          at < total_ ? static_cast<size_t>(std::min(wanted, total_ - at)) : size_t{0};
      if (frames == 0) return Silence(block);
      ReadFromFile(at, frames, block.first(frames * frame_size));
      block = block.subspan(frames * frame_size);
      frame += frames;
    }
  }

 private:
  void Silence(std::span<std::byte> block) const {
    for (size_t i = 0; i < block.size(); i += format_.bytes_per_sample) {
      StoreSample(encoding_, 0, &block[i]);
    }
  }

  void ReadFromFile(uint64_t at, size_t frames, std::span<std::byte> block) {
    if (at != position_) sf_seek(file_.get(), static_cast<sf_count_t>(at), SEEK_SET);
    const size_t width = format_.bytes_per_sample;
    samples_.resize(frames * file_channels_ * width);
    const size_t read = ReadSamples();
    position_ = at + read / file_channels_;
    Silence(std::span(samples_).subspan(read * width));  // the file became shorter meanwhile
    if (file_channels_ == format_.channels) {
      std::ranges::copy(samples_, block.begin());
      return;
    }
    for (size_t i = 0; i < block.size() / width; ++i) {  // one channel into all of them
      std::memcpy(&block[i * width], &samples_[i / format_.channels * width], width);
    }
  }

  /// Fills `samples_` with what comes next in the file; answers the number of samples.
  size_t ReadSamples() {
    switch (route_) {
      case Route::kRaw:
        return static_cast<size_t>(std::max<sf_count_t>(
            0,
            sf_read_raw(file_.get(), samples_.data(), static_cast<sf_count_t>(samples_.size()))));
      case Route::kShort:
        return ReadAs<int16_t>(sf_read_short);
      case Route::kInt:
        return ReadAs<int32_t>(sf_read_int);
      case Route::kFloat:
        return ReadAs<float>(sf_read_float);
      case Route::kDouble:
        break;
    }
    values_.resize(samples_.size() / format_.bytes_per_sample);
    const sf_count_t read =
        sf_read_double(file_.get(), values_.data(), static_cast<sf_count_t>(values_.size()));
    for (size_t i = 0; i < static_cast<size_t>(read); ++i) {
      StoreSample(encoding_, values_[i], &samples_[i * format_.bytes_per_sample]);
    }
    return static_cast<size_t>(read);
  }

  template <typename Sample>
  size_t ReadAs(Reader<Sample> read) {
    auto* samples = reinterpret_cast<Sample*>(samples_.data());
    return static_cast<size_t>(
        read(file_.get(), samples, static_cast<sf_count_t>(samples_.size() / sizeof(Sample))));
  }

  const SoundFile file_;
  const size_t file_channels_;
  const uint64_t total_;  // frames of the file
  const KvoxTapFormat format_;
  const Encoding encoding_;
  const Route route_;
  const bool repeat_;
  uint64_t position_ = 0;           // of the file, in frames
  std::vector<std::byte> samples_;  // in the tap's encoding, with the file's channels
  std::vector<double> values_;
};

}  // namespace

SoundFile OpenSoundFile(const std::filesystem::path& path, SF_INFO& info, std::string& error) {
  info = {};
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    error = fmt::format("{} cannot be opened ({}); expected a readable sound file", path.string(),
                        std::strerror(errno));
    return nullptr;
  }
  SoundFile file(sf_open_fd(fd, SFM_READ, &info, SF_TRUE));
  if (file == nullptr) {
    error = fmt::format("{} cannot be read ({}); expected a sound file such as WAV", path.string(),
                        sf_strerror(nullptr));
  }
  return file;
}

std::unique_ptr<Source> MakeWavSource(const TapConfig& tap, std::string& error) {
  SF_INFO info;
  const std::string path = tap.source.file.string();
  std::string problem;
  SoundFile file = OpenSoundFile(tap.source.file, info, problem);
  if (file != nullptr && static_cast<uint32_t>(info.samplerate) != tap.format.sample_rate) {
    problem = fmt::format("{} has {} Hz; expected {} Hz, the tap's rate", path, info.samplerate,
                          tap.format.sample_rate);
  } else if (file != nullptr && info.channels != 1 && info.channels != tap.format.channels) {
    problem = fmt::format("{} has {} channels; expected {}, as the tap, or 1", path, info.channels,
                          tap.format.channels);
  } else if (file != nullptr && !info.seekable) {
    problem = fmt::format("{} cannot be read from any place; expected a plain file", path);
  }
  if (problem.empty()) return std::make_unique<WavSource>(std::move(file), info, tap);
  error = fmt::format("{}: {}", tap.source.where, problem);
  return nullptr;
}

}  // namespace kvox::sim
