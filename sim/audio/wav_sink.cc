#include <fmt/format.h>

#include <optional>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "kvox/sound/sound_file.h"
#include "sim/audio/samples.h"
#include "sim/audio/sink.h"
#include "sim/output.h"

namespace kvox::sim {
namespace {

/// The format of the file that holds such packets; the layout does not matter there.
SoundFormat FileFormat(const KvoxTapFormat& format) {
  return {.sample_rate = format.sample_rate,
          .channels = format.channels,
          .bits = format.bytes_per_sample * 8u,
          .encoding = Kvox::DataFormat{format.data_format}};
}

class WavSink : public Sink {
 public:
  explicit WavSink(std::filesystem::path path) : path_(std::move(path)) {}

  bool Write(const KvoxTapFormat& format, std::span<const std::byte> block) override {
    try {
      if (!format_ || *format_ != FileFormat(format)) {
        format_ = FileFormat(format);
        Begin();
      }
      if (!writer_) return false;
      interleaved_.resize(block.size() / FrameSize(format) * FrameSize(format));
      Interleave(format, block.first(interleaved_.size()), interleaved_);
      writer_->Write(interleaved_);
      return true;
    } catch (const SoundFileError& error) {
      if (!reported_) {
        Print(stderr, "kvosim: sink {}; its packets are counted as sink_failed\n", error.what());
      }
      reported_ = true;
      return false;
    }
  }

 private:
  /// Throws, without a writer, when the format or the disk does not allow a file.
  void Begin() {
    writer_.reset();
    reported_ = false;
    std::filesystem::path path = path_;
    if (files_ > 0) {
      path.replace_filename(
          fmt::format("{}-{}{}", path_.stem().string(), files_ + 1, path_.extension().string()));
    }
    writer_.emplace(path.string(), *format_);
    ++files_;
  }

  const std::filesystem::path path_;
  int files_ = 0;
  bool reported_ = false;
  std::optional<SoundFormat> format_;  // of the file, or of what could not be kept
  std::optional<SoundWriter> writer_;
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
