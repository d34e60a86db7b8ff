#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "kvox/sound/sound_file.h"
#include "sim/audio/samples.h"
#include "sim/audio/source.h"

namespace kvox::sim {
namespace {

class WavSource : public Source {
 public:
  WavSource(SoundReader reader, const TapConfig& tap)
      : reader_(std::move(reader)),
        format_(tap.format),
        encoding_(*EncodingOf(tap.format)),
        repeat_(tap.source.repeat) {
    const SoundFormat format{.sample_rate = format_.sample_rate,
                             .channels = format_.channels,
                             .bits = format_.bytes_per_sample * 8u,
                             .encoding = Kvox::DataFormat{format_.data_format}};
    by_value_ = !reader_.CanConvertTo(format);
    if (!by_value_) reader_.ConvertTo(format);
  }

  void Read(uint64_t frame, std::span<std::byte> block) override {
    const size_t frame_size = FrameSize(format_);
    const uint64_t total = reader_.frame_count();
    while (!block.empty()) {
      const uint64_t at = repeat_ && total > 0 ? frame % total : frame;
      const uint64_t wanted = block.size() / frame_size;
      const size_t frames =
          at < total ? static_cast<size_t>(std::min(wanted, total - at)) : size_t{0};
      if (frames == 0) return Silence(block);
      reader_.Seek(at);
      const auto part = block.first(frames * frame_size);
      if (by_value_) {
        ReadByValue(part);
      } else {
        reader_.Read(part);
      }
      block = block.subspan(part.size());
      frame += frames;
    }
  }

 private:
  void Silence(std::span<std::byte> block) const {
    for (size_t i = 0; i < block.size(); i += format_.bytes_per_sample) {
      StoreSample(encoding_, 0, &block[i]);
    }
  }

  /// Encodes each sample; one channel of a file goes into all of the tap's.
  void ReadByValue(std::span<std::byte> block) {
    values_.assign(block.size() / FrameSize(format_) * reader_.channels(), 0);
    reader_.ReadDoubles(values_);
    for (size_t i = 0; i * format_.bytes_per_sample < block.size(); ++i) {
      const size_t from = reader_.channels() == 1 ? i / format_.channels : i;
      StoreSample(encoding_, values_[from], &block[i * format_.bytes_per_sample]);
    }
  }

  SoundReader reader_;
  const KvoxTapFormat format_;
  const Encoding encoding_;
  const bool repeat_;
  bool by_value_ = false;  // the reader does not know the tap's encoding
  std::vector<double> values_;
};

}  // namespace

std::unique_ptr<Source> MakeWavSource(const TapConfig& tap, std::string& error) {
  const std::string path = tap.source.file.string();
  std::string problem;
  try {
    SoundReader reader(path);
    if (reader.sample_rate() != tap.format.sample_rate) {
      problem = fmt::format("'{}' has {} Hz; expected {} Hz, the tap's rate", path,
                            reader.sample_rate(), tap.format.sample_rate);
    } else if (reader.channels() != 1 && reader.channels() != tap.format.channels) {
      problem = fmt::format("'{}' has {} channels; expected {}, as the tap, or 1", path,
                            reader.channels(), tap.format.channels);
    } else {
      return std::make_unique<WavSource>(std::move(reader), tap);
    }
  } catch (const SoundFileError& refusal) {
    problem = fmt::format("{}; expected a readable sound file, such as WAV", refusal.what());
  }
  error = fmt::format("{}: {}", tap.source.where, problem);
  return nullptr;
}

}  // namespace kvox::sim
