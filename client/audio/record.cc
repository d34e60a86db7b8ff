#include "client/audio/record.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "client/audio/block_queue.h"

namespace kvox::client {
namespace {

/// Writes blocks to a file, which ends complete with this object.
class Recorder {
 public:
  Recorder(BlockQueue& queue, const RecordOptions& options) : queue_(queue), options_(options) {}

  /// Writes what has come. True when there is enough.
  bool Write() {
    const auto blocks = queue_.TakeAll();
    for (const auto& block : blocks) {
      if (Enough()) break;
      WriteBlock(block);
    }
    ShowProgress(figures().seconds, figures().missed);
    return Enough();
  }

  StayFigures figures() const {
    return {.seconds = format_ ? static_cast<double>(frames_) / format_->sample_rate : 0,
            .blocks = blocks_,
            .missed = queue_.missed()};
  }

 private:
  bool Enough() const {
    return options_.seconds > 0 && format_ &&
           static_cast<double>(frames_) >= options_.seconds * format_->sample_rate;
  }

  void WriteBlock(const IKvox::AudioPacket& block) {
    const auto format = FormatOf(block);
    if (!format) throw SoundFileError(options_.name + " sends audio of an unknown format");
    if (!file_) {
      file_ = std::make_unique<SoundWriter>(options_.path, *format);
      format_ = format;
    }
    if (*format != *format_) {
      throw SoundFileError(options_.name + " changed from " + Describe(*format_) + " to " +
                           Describe(*format) + "; the file ends there");
    }
    auto frames = block.data.size() / format->FrameSize();
    if (options_.seconds > 0) {
      const auto wanted = static_cast<uint64_t>(std::ceil(options_.seconds * format->sample_rate));
      frames = std::min<uint64_t>(frames, wanted - frames_);
    }
    file_->Write(std::as_bytes(std::span(block.data)).first(frames * format->FrameSize()));
    frames_ += frames;
    ++blocks_;
  }

  BlockQueue& queue_;
  const RecordOptions& options_;
  std::unique_ptr<SoundWriter> file_;
  std::optional<StreamFormat> format_;
  uint64_t frames_ = 0;
  uint64_t blocks_ = 0;
};

}  // namespace

StayEnd Record(const std::shared_ptr<IKvox>& kvox, const RecordOptions& options) {
  // The serving thread may keep the queue for longer. The file is this function's own, so that it
  // is closed however the stay ends.
  const auto queue = std::make_shared<BlockQueue>();
  Recorder recorder(*queue, options);
  RelaySession session(kvox, options.processor, options.name, "recording from " + options.name,
                       options.wait);
  StayEnd end =
      session.Stay([queue](const IKvox::AudioPacket& packet) { queue->Push(packet, NowNs()); },
                   [&recorder] { return recorder.Write(); });
  if (end == StayEnd::kRefused) return end;
  const StayFigures figures = recorder.figures();
  if (end == StayEnd::kDone && figures.missed > 0) end = StayEnd::kMissedBlocks;
  PrintStay("recorded", figures, options.json);
  return end;
}

}  // namespace kvox::client
