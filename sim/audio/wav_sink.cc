#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <tuple>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "sim/audio/samples.h"
#include "sim/audio/sink.h"
#include "sim/audio/sound_file.h"
#include "sim/output.h"

namespace kvox::sim {
namespace {

struct SubtypeRow {
  Kvox::DataFormat format;
  uint8_t bytes;
  int subtype;
};
constexpr SubtypeRow kSubtypes[] = {
    {Kvox::DataFormat::INT, 2, SF_FORMAT_PCM_16}, {Kvox::DataFormat::INT, 3, SF_FORMAT_PCM_24},
    {Kvox::DataFormat::INT, 4, SF_FORMAT_PCM_32}, {Kvox::DataFormat::FLOAT, 4, SF_FORMAT_FLOAT},
    {Kvox::DataFormat::SULAW, 1, SF_FORMAT_ULAW},
};

int SubtypeOf(const KvoxTapFormat& format) {
  for (const SubtypeRow& row : kSubtypes) {
    if (static_cast<uint8_t>(row.format) == format.data_format &&
        row.bytes == format.bytes_per_sample) {
      return row.subtype;
    }
  }
  return 0;
}

/// Whether both can go into one file; the layout does not matter there.
bool SameFile(const KvoxTapFormat& a, const KvoxTapFormat& b) {
  const auto key = [](const KvoxTapFormat& format) {
    return std::tuple(format.sample_rate, format.channels, format.bytes_per_sample,
                      format.data_format);
  };
  return key(a) == key(b);
}

class WavSink : public Sink {
 public:
  explicit WavSink(std::filesystem::path path) : path_(std::move(path)) {}

  bool Write(const KvoxTapFormat& format, std::span<const std::byte> block) override {
    if (!format_ || !SameFile(*format_, format)) {
      format_ = format;
      Begin();
    }
    if (file_ == nullptr) return false;
    interleaved_.resize(block.size() / FrameSize(format) * FrameSize(format));
    Interleave(format, block.first(interleaved_.size()), interleaved_);
    const auto size = static_cast<sf_count_t>(interleaved_.size());
    if (sf_write_raw(file_.get(), interleaved_.data(), size) == size) return true;
    Tell(fmt::format("cannot be written ({})", sf_strerror(file_.get())));
    return false;
  }

 private:
  /// Leaves `file_` null when the format or the disk does not allow a file.
  void Begin() {
    file_.reset();
    told_ = false;
    const int subtype = SubtypeOf(*format_);
    if (subtype == 0 || format_->channels == 0) {
      return Tell(fmt::format("cannot hold {} channels of {} bytes of data format {}",
                              format_->channels, format_->bytes_per_sample, format_->data_format));
    }
    if (++files_ > 1) {
      current_ = path_;
      current_.replace_filename(
          fmt::format("{}-{}{}", path_.stem().string(), files_, path_.extension().string()));
    }
    const int fd =
        open(current_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd < 0) return Tell(fmt::format("cannot be opened ({})", std::strerror(errno)));
    SF_INFO info{};
    info.samplerate = static_cast<int>(format_->sample_rate);
    info.channels = format_->channels;
    info.format = SF_FORMAT_WAV | subtype;
    file_.reset(sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE));
    if (file_ == nullptr) return Tell(fmt::format("cannot be begun ({})", sf_strerror(nullptr)));
    sf_command(file_.get(), SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
  }

  void Tell(const std::string& problem) {
    if (told_) return;
    told_ = true;
    Print(stderr, "kvosim: sink {} {}; its packets are counted as sink_failed\n", current_.string(),
          problem);
  }

  const std::filesystem::path path_;
  std::filesystem::path current_ = path_;
  int files_ = 0;
  bool told_ = false;
  std::optional<KvoxTapFormat> format_;  // of the file, or of what could not be kept
  SoundFile file_;
  std::vector<std::byte> interleaved_;
};

}  // namespace

std::unique_ptr<Sink> MakeWavSink(const SinkConfig& sink, std::string& error) {
  std::error_code ignored;
  const std::filesystem::path directory =
      sink.file.has_parent_path() ? sink.file.parent_path() : ".";
  if (std::filesystem::is_directory(directory, ignored))
    return std::make_unique<WavSink>(sink.file);
  error = fmt::format("{}: there is no directory {}; expected a file in one that exists",
                      sink.where, directory.string());
  return nullptr;
}

}  // namespace kvox::sim
