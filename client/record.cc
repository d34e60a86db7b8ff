#include "client/record.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <mutex>
#include <utility>

#include "client/block_clock.h"

namespace kvox::client {
namespace {

/// Takes blocks on the serving thread, and writes them on the main thread.
class Recorder {
 public:
  explicit Recorder(const RecordOptions& options) : options_(options) {}

  void Take(const IKvox::AudioPacket& packet) {
    const int64_t block_ns = BlockNs(packet);
    std::lock_guard lock(mutex_);
    clock_.Arrived(NowNs(), block_ns);
    queue_.push_back(packet);
  }

  /// Writes what has come. True when there is enough.
  bool Write() {
    std::deque<IKvox::AudioPacket> blocks;
    {
      std::lock_guard lock(mutex_);
      blocks.swap(queue_);
    }
    for (const auto& block : blocks) {
      if (Enough()) break;
      WriteBlock(block);
    }
    ShowProgress(seconds(), missed());
    return Enough();
  }

  uint64_t missed() {
    std::lock_guard lock(mutex_);
    return clock_.missed();
  }
  double seconds() const {
    return format_ ? static_cast<double>(frames_) / format_->sample_rate : 0;
  }
  uint64_t blocks() const { return blocks_; }

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

  const RecordOptions options_;
  std::mutex mutex_;
  std::deque<IKvox::AudioPacket> queue_;
  BlockClock clock_;

  // The main thread's.
  std::unique_ptr<SoundWriter> file_;
  std::optional<StreamFormat> format_;
  uint64_t frames_ = 0;
  uint64_t blocks_ = 0;
};

}  // namespace

StayEnd Record(const std::shared_ptr<IKvox>& kvox, const RecordOptions& options) {
  const auto recorder = std::make_shared<Recorder>(options);
  RelaySession session(kvox, options.processor, options.name, "recording from " + options.name);
  StayEnd end =
      session.Stay([recorder](const IKvox::AudioPacket& packet) { recorder->Take(packet); },
                   [recorder] { return recorder->Write(); });
  if (end == StayEnd::kDone && recorder->missed() > 0) end = StayEnd::kMissedBlocks;
  if (end == StayEnd::kRefused) return end;
  PrintStay(
      "recorded",
      {.seconds = recorder->seconds(), .blocks = recorder->blocks(), .missed = recorder->missed()},
      options.json);
  return end;
}

}  // namespace kvox::client
