#include <deque>
#include <mutex>
#include <utility>

#include "client/audio/block_queue.h"
#include "client/audio/sessions.h"

namespace kvox::client {
namespace {

constexpr size_t kBlocksAhead = 16;

/// Reads blocks on the main thread, and sends one on the serving thread whenever a block comes. A
/// block sent before that callback returns replaces the received one. If the callback takes too
/// long the relay does not wait, and the block is sent with the next one.
class Player {
 public:
  Player(std::shared_ptr<IKvox> kvox, SoundReader file, const SessionOptions& options)
      : kvox_(std::move(kvox)), options_(options), file_(std::move(file)) {}

  void OnBlock(const IKvox::AudioPacket& packet) {
    const int64_t begin_ns = NowNs();
    std::unique_lock lock(mutex_);
    if (!shape_) {
      shape_ = packet;
      return;
    }
    const int64_t block_ns = BlockNs(packet);
    clock_.Arrived(begin_ns, block_ns);
    if (std::exchange(late_, false)) {
      ++missed_;
      return;
    }
    if (queue_.empty()) {
      if (at_end_) {
        finished_ = true;
      } else if (started_) {
        ++missed_;
      }
      return;
    }
    started_ = true;
    IKvox::AudioPacket block = packet;
    block.data = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    IKvox::CommandResult result;
    const bool sent = kvox_->SendAudio(options_.processor, block, &result).isOk() &&
                      result.status == IKvox::CommandStatus::OK;
    lock.lock();
    ++blocks_;
    if (!sent) refused_ = true;
    late_ = NowNs() - begin_ns > block_ns * 9 / 20;
  }

  /// Reads ahead. True when everything has been sent, or nothing more can be.
  bool ReadAhead() {
    std::unique_lock lock(mutex_);
    ShowProgress(StatsLocked());
    if (!shape_) return false;
    if (!format_) {
      format_ = FormatOf(*shape_);
      if (!format_) throw SoundFileError(options_.name + " wants audio of an unknown format");
      if (shape_->data.empty() || shape_->data.size() % format_->FrameSize() != 0) {
        throw SoundFileError(options_.name + " wants blocks that are no whole frames");
      }
      file_.ConvertTo(*format_);
    }
    while (!at_end_ && queue_.size() < kBlocksAhead) {
      lock.unlock();
      std::vector<uint8_t> block(shape_->data.size());
      const size_t size = file_.Read(std::as_writable_bytes(std::span(block)));
      lock.lock();
      if (size > 0) queue_.push_back(std::move(block));
      at_end_ = size < shape_->data.size();
    }
    return finished_ || refused_;
  }

  bool refused() {
    std::lock_guard lock(mutex_);
    return refused_;
  }
  /// A callback may still be running: what it sends is not counted any more.
  SessionStats stats() {
    std::lock_guard lock(mutex_);
    return StatsLocked();
  }

 private:
  SessionStats StatsLocked() const {
    const size_t frames = format_ ? shape_->data.size() / format_->FrameSize() : 0;
    return {.seconds = format_ ? static_cast<double>(blocks_ * frames) / format_->sample_rate : 0,
            .blocks = blocks_,
            .missed = missed_ + clock_.missed()};
  }

  const std::shared_ptr<IKvox> kvox_;
  const SessionOptions options_;
  SoundReader file_;                   // the main thread's
  std::optional<SoundFormat> format_;  // the main thread's

  std::mutex mutex_;
  std::optional<IKvox::AudioPacket> shape_;  // of every block; set once
  std::deque<std::vector<uint8_t>> queue_;
  BlockClock clock_;
  uint64_t blocks_ = 0;
  uint64_t missed_ = 0;
  bool started_ = false;
  bool at_end_ = false;
  bool late_ = false;
  bool finished_ = false;
  bool refused_ = false;
};

}  // namespace

ExitStatus Play(const std::shared_ptr<IKvox>& kvox, const SessionOptions& options,
                SoundReader file) {
  const auto player = std::make_shared<Player>(kvox, std::move(file), options);
  const ExitStatus end = RelaySession(kvox, options)
                             .Run(
                                 "playing to " + options.name,
                                 [player](const auto& packet) { player->OnBlock(packet); },
                                 [player] { return player->ReadAhead(); });
  if (player->refused()) {
    throw Failure(kRefused, options.name + " does not accept the audio any more; see kvoxd's log");
  }
  return Finish("played", end, player->stats(), options.json);
}

}  // namespace kvox::client
