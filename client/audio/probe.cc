#include <cstring>
#include <mutex>
#include <utility>

#include "client/audio/sessions.h"

namespace kvox::client {
namespace {

constexpr size_t kProbes = 10;
constexpr int64_t kLimitNs = 20'000'000'000;
constexpr int64_t kNoBlockNs = 2'000'000'000;
constexpr double kQuiet_s = 0.3;  // between the return of one and the next
constexpr double kLongest_s = 2;  // that one is waited for
constexpr double kClick_s = 0.001;
constexpr float kClickLevel = 0.5f;  // of full scale
constexpr float kLoudLevel = 0.25f;

/// Little-endian samples of one encoding. Only what a click needs.
class Samples {
 public:
  explicit Samples(const SoundFormat& format) : format_(format) {}

  static bool Supports(const SoundFormat& format) {
    return format.encoding == Kvox::DataFormat::INT ||
           (format.encoding == Kvox::DataFormat::FLOAT && format.bits == 32);
  }

  void SetClick(std::span<uint8_t> frame) const {
    for (size_t at = 0; at < frame.size(); at += width()) {
      if (IsFloat())
        std::memcpy(&frame[at], &kClickLevel, sizeof kClickLevel);
      else
        frame[at + width() - 1] = static_cast<uint8_t>(kClickLevel * 128);
    }
  }

  bool IsLoud(std::span<const uint8_t> frame) const {
    for (size_t at = 0; at < frame.size(); at += width()) {
      float value = 0;
      if (IsFloat())
        std::memcpy(&value, &frame[at], sizeof value);
      else
        value = static_cast<float>(static_cast<int8_t>(frame[at + width() - 1])) / 128;
      if (value >= kLoudLevel || value <= -kLoudLevel) return true;
    }
    return false;
  }

 private:
  size_t width() const { return format_.bits / 8; }
  bool IsFloat() const { return format_.encoding == Kvox::DataFormat::FLOAT; }

  const SoundFormat format_;
};

/// Sends silence, with a click now and then, and looks for it in what comes back. Positions are
/// frames of the relay's blocks, so that no thread's delay is part of the result.
class Prober {
 public:
  Prober(std::shared_ptr<IKvox> kvox, const SessionOptions& options)
      : kvox_(std::move(kvox)), options_(options) {}

  /// On the serving thread. What is sent before it returns replaces the received block.
  void OnBlock(const IKvox::AudioPacket& packet) {
    const auto format = FormatOf(packet);
    if (!format || !Samples::Supports(*format) || packet.data.size() % format->FrameSize() != 0) {
      std::lock_guard lock(mutex_);
      unsupported_ = true;
      return;
    }
    IKvox::AudioPacket block = packet;
    {
      std::lock_guard lock(mutex_);
      last_block_ns_ = NowNs();
      Listen(packet, *format);
      std::ranges::fill(block.data, uint8_t{0});
      if (!sent_at_ && position_ >= next_at_) Click(block, *format);
      position_ += packet.data.size() / format->FrameSize();
    }
    IKvox::CommandResult ignored;
    static_cast<void>(kvox_->SendAudio(options_.processor, block, &ignored));
  }

  /// True when there is nothing more to do.
  bool Done() {
    std::lock_guard lock(mutex_);
    const int64_t now_ns = NowNs();
    return unsupported_ || results_ms_.size() >= kProbes || now_ns - begin_ns_ > kLimitNs ||
           now_ns - last_block_ns_ > kNoBlockNs;
  }

  ProbeResult Result() {
    std::lock_guard lock(mutex_);
    return {.sent = sent_, .returned_ms = results_ms_, .unsupported = unsupported_};
  }

 private:
  void Listen(const IKvox::AudioPacket& packet, const SoundFormat& format) {
    if (!sent_at_) return;
    const auto rate = static_cast<double>(format.sample_rate);
    const size_t size = format.FrameSize();
    const std::span<const uint8_t> data(packet.data);
    for (size_t at = 0; at < data.size(); at += size) {
      if (!Samples(format).IsLoud(data.subspan(at, size))) continue;
      const uint64_t frame = position_ + at / size;
      results_ms_.push_back(static_cast<double>(frame - *sent_at_) * 1000 / rate);
      return WaitForQuiet(rate);
    }
    if (static_cast<double>(position_ - *sent_at_) > kLongest_s * rate) WaitForQuiet(rate);
  }

  void WaitForQuiet(double rate) {
    sent_at_.reset();
    next_at_ = position_ + static_cast<uint64_t>(kQuiet_s * rate);
  }

  void Click(IKvox::AudioPacket& block, const SoundFormat& format) {
    const size_t size = format.FrameSize();
    const auto frames = static_cast<size_t>(kClick_s * format.sample_rate);
    const std::span<uint8_t> data(block.data);
    for (size_t i = 0; i < frames && (i + 1) * size <= data.size(); ++i) {
      Samples(format).SetClick(data.subspan(i * size, size));
    }
    sent_at_ = position_;
    ++sent_;
  }

  const std::shared_ptr<IKvox> kvox_;
  const SessionOptions options_;
  const int64_t begin_ns_ = NowNs();

  std::mutex mutex_;
  int64_t last_block_ns_ = begin_ns_;
  uint64_t position_ = 0;  // frames received
  uint64_t next_at_ = 0;   // when the next click may be sent
  std::optional<uint64_t> sent_at_;
  size_t sent_ = 0;
  std::vector<double> results_ms_;
  bool unsupported_ = false;
};

}  // namespace

ProbeResult Probe(const std::shared_ptr<IKvox>& kvox, const SessionOptions& options) {
  const auto prober = std::make_shared<Prober>(kvox, options);
  const ExitStatus end = RelaySession(kvox, options)
                             .Run(
                                 "probing through " + options.name,
                                 [prober](const auto& packet) { prober->OnBlock(packet); },
                                 [prober] { return prober->Done(); });
  ProbeResult result = prober->Result();
  result.end = end;
  return result;
}

}  // namespace kvox::client
