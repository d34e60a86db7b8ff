#include "libkvox/audio/sender.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "kvox/common/kvox_utils.h"
#include "kvox/common/mutex.h"
#include "libkvox/audio/packet_format.h"
#include "libkvox/audio/relay_client.h"

namespace kvox::client {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBlocksAhead = 16;
constexpr auto kTick = std::chrono::milliseconds(20);

/// The blocks on their way from the caller's thread to the one that serves the daemon, which sends
/// one whenever a block comes. A block that is sent before that callback returns goes out with the
/// block that has come; if the callback takes too long the relay does not wait, and it goes out
/// with the next one.
class Blocks {
 public:
  void OnBlock(const RelayClient::Delivery& delivery) {
    if (!delivery.settled) return;
    const uint64_t begin_ns = GetTimestampNs();
    MutexLock lock(mutex_);
    // After the daemon's restart a temporary relay has another name.
    if (!shape_ || delivery.connection != connection_) {
      connection_ = delivery.connection;
      shape_ = delivery.packet;
      shape_->data.clear();
      size_ = delivery.packet.data.size();
      changed_.NotifyAll();
      return;
    }
    if (std::exchange(late_, false)) {
      ++counts_.missed;
      return;
    }
    if (queue_.empty()) {
      if (started_ && !ending_) ++counts_.missed;
      drained_ = ending_;
      changed_.NotifyAll();
      return;
    }
    started_ = true;
    IKvox::AudioPacket block = *shape_;
    block.data = std::move(queue_.front());
    queue_.pop_front();
    changed_.NotifyAll();
    lock.Unlock();
    IKvox::CommandResult result;
    const int64_t block_ns = BlockNs(block);
    const bool sent = delivery.kvox->SendAudio(block.processor_id, block, &result).isOk();
    lock.Lock();
    if (!sent) return;  // the daemon has died, and may come back
    ++counts_.blocks;
    refused_ = result.status != IKvox::CommandStatus::OK;
    const auto took_ns = static_cast<int64_t>(GetTimestampNs() - begin_ns);
    late_ = took_ns > block_ns * 9 / 20;
  }

  std::optional<SendFormat> format() {
    const MutexLock lock(mutex_);
    if (!shape_) return std::nullopt;
    const auto format = FormatOf(*shape_);
    if (!format || size_ == 0 || size_ % format->FrameSize() != 0) return SendFormat();
    return SendFormat{*format, size_ / format->FrameSize()};
  }

  bool WaitForChange(Clock::time_point deadline) {
    MutexLock lock(mutex_);
    return changed_.WaitUntil(mutex_, deadline);
  }

  bool Put(std::span<const std::byte> block) {
    const MutexLock lock(mutex_);
    if (queue_.size() >= kBlocksAhead) return false;
    ending_ = drained_ = false;
    const auto* const bytes = reinterpret_cast<const uint8_t*>(block.data());
    queue_.emplace_back(bytes, bytes + block.size());
    return true;
  }

  bool TakeDrained() {
    const MutexLock lock(mutex_);
    ending_ = true;
    return drained_ && queue_.empty();
  }

  bool refused() {
    const MutexLock lock(mutex_);
    return refused_;
  }

  SendCounts counts() {
    const MutexLock lock(mutex_);
    return counts_;
  }

 private:
  Mutex mutex_;
  CondVar changed_;
  std::optional<IKvox::AudioPacket> shape_ GUARDED_BY(mutex_);  // of every block, without data
  size_t size_ GUARDED_BY(mutex_) = 0;                          // of its data
  int connection_ GUARDED_BY(mutex_) = 0;                       // that it is for
  std::deque<std::vector<uint8_t>> queue_ GUARDED_BY(mutex_);
  SendCounts counts_ GUARDED_BY(mutex_);
  bool started_ GUARDED_BY(mutex_) = false;
  bool ending_ GUARDED_BY(mutex_) = false;
  bool drained_ GUARDED_BY(mutex_) = false;
  bool late_ GUARDED_BY(mutex_) = false;
  bool refused_ GUARDED_BY(mutex_) = false;
};

}  // namespace

class Sender::Impl {
 public:
  Impl(Daemon& daemon, const std::string& point)
      : client_(daemon, point, Use::kSend,
                [blocks = blocks_](const auto& delivery) { blocks->OnBlock(delivery); }) {}

  /// Repeats `step` until it returns true.
  template <typename Step>
  bool Until(std::chrono::milliseconds wait, Step step) {
    const auto deadline = Clock::now() + wait;
    for (;;) {
      client_.Tend();
      if (blocks_->refused()) {
        throw Failure(kRefused,
                      client_.point() + " does not accept the audio any more; see kvoxd's log");
      }
      if (step(*blocks_)) return true;
      if (Clock::now() >= deadline) return false;
      blocks_->WaitForChange(std::min(deadline, Clock::now() + kTick));
    }
  }

  RelayClient& client() { return client_; }
  SendCounts counts() const { return blocks_->counts(); }

 private:
  /// A callback may still be running after the client has left.
  const std::shared_ptr<Blocks> blocks_ = std::make_shared<Blocks>();
  RelayClient client_;
};

Sender::Sender(Daemon& daemon, const std::string& point)
    : impl_(std::make_unique<Impl>(daemon, point)) {}

Sender::~Sender() = default;

bool Sender::WaitForFormat(std::chrono::milliseconds wait, SendFormat& format) {
  const bool found = impl_->Until(wait, [&](Blocks& blocks) {
    const auto known = blocks.format();
    if (known) format = *known;
    return known.has_value();
  });
  if (found && format.block_frames == 0) {
    throw Failure(kRefused, point() + " wants audio of an unknown format; see kvoxd's log");
  }
  return found;
}

bool Sender::Send(std::span<const std::byte> block, std::chrono::milliseconds wait) {
  return impl_->Until(wait, [&](Blocks& blocks) { return blocks.Put(block); });
}

bool Sender::Drain(std::chrono::milliseconds wait) {
  return impl_->Until(wait, [](Blocks& blocks) { return blocks.TakeDrained(); });
}

void Sender::Leave() {
  impl_->client().Leave();
}

const std::string& Sender::point() const {
  return impl_->client().point();
}

SendCounts Sender::counts() const {
  return impl_->counts();
}

}  // namespace kvox::client
