#include <algorithm>
#include <cmath>
#include <utility>

#include "client/audio/block_queue.h"
#include "client/audio/sessions.h"

namespace kvox::client {
namespace {

/// Writes blocks to a file, which is closed with this object.
class Recorder {
 public:
  Recorder(BlockQueue& queue, std::string name, std::string path, double seconds)
      : queue_(queue), name_(std::move(name)), path_(std::move(path)), seconds_(seconds) {}

  /// Writes the received blocks. True when there is enough audio.
  bool Write() {
    const auto blocks = queue_.TakeAll();
    for (const auto& block : blocks) {
      if (Enough()) break;
      WriteBlock(block);
    }
    ShowProgress(stats());
    return Enough();
  }

  SessionStats stats() const {
    return {.seconds = format_ ? static_cast<double>(frames_) / format_->sample_rate : 0,
            .blocks = blocks_,
            .missed = queue_.missed()};
  }

 private:
  bool Enough() const {
    return seconds_ > 0 && format_ &&
           static_cast<double>(frames_) >= seconds_ * format_->sample_rate;
  }

  void WriteBlock(const IKvox::AudioPacket& block) {
    const auto format = FormatOf(block);
    if (!format) throw SoundFileError(name_ + " sends audio of an unknown format");
    if (!file_) {
      file_ = std::make_unique<SoundWriter>(path_, *format);
      format_ = format;
    }
    if (*format != *format_) {
      throw SoundFileError(name_ + " changed from " + Describe(*format_) + " to " +
                           Describe(*format) + "; the file ends there");
    }
    auto frames = block.data.size() / format->FrameSize();
    if (seconds_ > 0) {
      const auto wanted = static_cast<uint64_t>(std::ceil(seconds_ * format->sample_rate));
      frames = std::min<uint64_t>(frames, wanted - frames_);
    }
    file_->Write(std::as_bytes(std::span(block.data)).first(frames * format->FrameSize()));
    frames_ += frames;
    ++blocks_;
  }

  BlockQueue& queue_;
  const std::string name_;
  const std::string path_;
  const double seconds_;
  std::unique_ptr<SoundWriter> file_;
  std::optional<SoundFormat> format_;
  uint64_t frames_ = 0;
  uint64_t blocks_ = 0;
};

}  // namespace

ExitStatus Record(const std::shared_ptr<IKvox>& kvox, const SessionOptions& options,
                  const std::string& path, double seconds) {
  // The serving thread may keep the queue for longer. The recorder is this function's own, so that
  // the file is closed however the session ends.
  const auto queue = std::make_shared<BlockQueue>();
  Recorder recorder(*queue, options.name, path, seconds);
  const ExitStatus end = RelaySession(kvox, options)
                             .Run(
                                 "recording from " + options.name,
                                 [queue](const auto& packet) { queue->Push(packet, NowNs()); },
                                 [&recorder] { return recorder.Write(); });
  return Finish("recorded", end, recorder.stats(), options.json);
}

}  // namespace kvox::client
