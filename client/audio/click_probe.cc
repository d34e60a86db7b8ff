#include "client/audio/click_probe.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <span>
#include <thread>

#include "client/audio/session.h"
#include "kvox/common/kvox_utils.h"
#include "kvox/common/mutex.h"
#include "libkvox/audio/packet_format.h"
#include "libkvox/audio/relay_client.h"
#include "libkvox/audio/samples.h"

namespace kvox::client {
namespace {

constexpr size_t kClicks = 10;
constexpr uint64_t kLimitNs = 20'000'000'000;
constexpr uint64_t kNoBlockNs = 2'000'000'000;
constexpr double kQuiet_s = 0.3;  // between the return of one and the next
constexpr double kLongest_s = 2;  // that one is waited for
constexpr double kClick_s = 0.001;
constexpr double kClickLevel = 0.5;  // of full scale
constexpr double kLoudLevel = 0.25;

/// Sends silence, with a click now and then, and looks for it in what comes back. Positions are
/// frames of the relay's blocks, so that no thread's delay is part of the result.
class Clicker {
 public:
  /// On the serving thread. What is sent before it returns replaces the received block.
  void OnBlock(const RelayClient::Delivery& delivery) {
    if (!delivery.settled) return;
    IKvox::AudioPacket block = delivery.packet;
    const auto format = FormatOf(block);
    if (!format || block.data.size() % format->FrameSize() != 0) return;
    samples_.resize(block.data.size() / (format->bits / 8));
    Decode(std::as_bytes(std::span(block.data)), *format, samples_);
    {
      const MutexLock lock(mutex_);
      last_block_ns_ = GetTimestampNs();
      Listen(*format);
      std::ranges::fill(samples_, 0.0);
      if (!sent_at_ && position_ >= next_at_) Click(*format);
      position_ += samples_.size() / format->channels;
    }
    Encode(samples_, *format, std::as_writable_bytes(std::span(block.data)));
    IKvox::CommandResult ignored;
    static_cast<void>(delivery.kvox->SendAudio(block.processor_id, block, &ignored));
  }

  /// True when there is nothing more to do.
  bool Done() {
    const MutexLock lock(mutex_);
    const uint64_t now_ns = GetTimestampNs();
    return result_.returned_ms.size() >= kClicks || now_ns - begin_ns_ > kLimitNs ||
           now_ns - last_block_ns_ > kNoBlockNs;
  }

  ClickResult Result() {
    const MutexLock lock(mutex_);
    return result_;
  }

 private:
  void Listen(const SoundFormat& format) REQUIRES(mutex_) {
    if (!sent_at_) return;
    const double rate = format.sample_rate;
    const auto loud = std::ranges::find_if(
        samples_, [](double sample) { return std::abs(sample) >= kLoudLevel; });
    if (loud != samples_.end()) {
      const auto index = static_cast<size_t>(loud - samples_.begin());
      const uint64_t frame = position_ + index / format.channels;
      result_.returned_ms.push_back(static_cast<double>(frame - *sent_at_) * 1000 / rate);
      WaitForQuiet(rate);
    } else if (static_cast<double>(position_ - *sent_at_) > kLongest_s * rate) {
      WaitForQuiet(rate);
    }
  }

  void WaitForQuiet(double rate) REQUIRES(mutex_) {
    sent_at_.reset();
    next_at_ = position_ + static_cast<uint64_t>(kQuiet_s * rate);
  }

  void Click(const SoundFormat& format) REQUIRES(mutex_) {
    const auto frames = static_cast<size_t>(kClick_s * format.sample_rate);
    const size_t count = std::min(samples_.size(), frames * format.channels);
    std::fill_n(samples_.begin(), count, kClickLevel);
    sent_at_ = position_;
    ++result_.sent;
  }

  const uint64_t begin_ns_ = GetTimestampNs();
  std::vector<double> samples_;  // the serving thread's

  Mutex mutex_;
  uint64_t last_block_ns_ GUARDED_BY(mutex_) = begin_ns_;
  uint64_t position_ GUARDED_BY(mutex_) = 0;  // frames received
  uint64_t next_at_ GUARDED_BY(mutex_) = 0;   // when the next click may be sent
  std::optional<uint64_t> sent_at_ GUARDED_BY(mutex_);
  ClickResult result_ GUARDED_BY(mutex_);
};

}  // namespace

ClickResult SendClicks(Daemon& daemon, const std::string& point) {
  Interrupts interrupts;
  Progress progress;
  const auto clicker = std::make_shared<Clicker>();
  RelayClient client(daemon, point, Use::kSend,
                     [clicker](const auto& delivery) { clicker->OnBlock(delivery); });
  progress.Note("probing through " + point + "; Ctrl-C ends it");
  std::optional<Failure> over;
  try {
    while (!clicker->Done() && !interrupts.Came()) {
      client.Tend();
      std::this_thread::sleep_for(kStep);
    }
  } catch (const Failure& failure) {
    over = failure;
  }
  ClickResult result = clicker->Result();
  result.over = over;
  return result;
}

}  // namespace kvox::client
