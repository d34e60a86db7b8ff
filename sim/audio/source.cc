#include "sim/audio/source.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>
#include <numbers>
#include <utility>

#include "kvox/common/kvox_packet.h"
#include "sim/audio/samples.h"

namespace kvox::sim {
namespace {

/// `Generator` returns a value from -1 to 1 for the n-th frame or, where the channels differ, for
/// the n-th sample.
template <typename Generator>
class Synthesizer : public Source {
 public:
  Synthesizer(const KvoxTapFormat& format, bool channels_differ, Generator generator)
      : encoding_(*EncodingOf(format)),
        width_(format.bytes_per_sample),
        copies_(channels_differ ? 1 : format.channels),
        values_per_frame_(channels_differ ? format.channels : 1),
        generator_(std::move(generator)) {}

  void Read(uint64_t frame, std::span<std::byte> block) override {
    uint64_t n = frame * values_per_frame_;
    for (size_t at = 0; at < block.size(); at += width_ * copies_, ++n) {
      StoreSample(encoding_, generator_(n), &block[at]);
      for (size_t copy = 1; copy < copies_; ++copy) {
        std::memcpy(&block[at + copy * width_], &block[at], width_);
      }
    }
  }

 private:
  const Encoding encoding_;
  const size_t width_;   // of a sample, in bytes
  const size_t copies_;  // of each value, one a channel
  const size_t values_per_frame_;
  const Generator generator_;
};

/// Delivers what has come back, in its order; silence when that is used up. What waits longer than
/// a second is dropped.
class Loop : public Source {
 public:
  explicit Loop(const KvoxTapFormat& format)
      : most_(size_t{format.sample_rate} * FrameSize(format)) {}

  void Read(uint64_t, std::span<std::byte> block) override {
    const size_t size = std::min(block.size(), waiting_.size());
    const auto end = waiting_.begin() + static_cast<ptrdiff_t>(size);
    std::copy(waiting_.begin(), end, block.begin());
    waiting_.erase(waiting_.begin(), end);
    std::fill(block.begin() + static_cast<ptrdiff_t>(size), block.end(), std::byte{});
  }

  void Returned(std::span<const std::byte> payload) override {
    waiting_.insert(waiting_.end(), payload.begin(), payload.end());
    if (waiting_.size() > most_)
      waiting_.erase(waiting_.begin(), waiting_.end() - static_cast<ptrdiff_t>(most_));
  }

 private:
  const size_t most_;  // bytes
  std::deque<std::byte> waiting_;
};

double Amplitude(double level) {
  return std::pow(10.0, level / 20);
}

/// The phase follows from the frame's number and is never summed up, so it cannot drift.
auto Sine(const SourceConfig& source, double rate) {
  return [level = Amplitude(source.level), step = source.frequency / rate](uint64_t n) {
    const double turns = step * static_cast<double>(n);
    return level * std::sin(2 * std::numbers::pi * (turns - std::floor(turns)));
  };
}

/// Linear, and repeated.
auto Sweep(const SourceConfig& source, double rate) {
  const auto frames = static_cast<uint64_t>(std::max(1.0, std::round(source.seconds * rate)));
  const double slope = (source.to - source.from) / (static_cast<double>(frames) / rate);
  return [=, level = Amplitude(source.level), from = source.from](uint64_t n) {
    const double t = static_cast<double>(n % frames) / rate;
    return level * std::sin(2 * std::numbers::pi * (from * t + slope * t * t / 2));
  };
}

/// White noise: a hash of the sample's number (the finaliser of splitmix64).
auto Noise(const SourceConfig& source) {
  return [level = Amplitude(source.level), seed = source.seed](uint64_t n) {
    uint64_t z = (n + 1) * 0x9E3779B97F4A7C15u + seed * 0xD1342543DE82EF95u;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9u;
    z = (z ^ z >> 27) * 0x94D049BB133111EBu;
    z ^= z >> 31;
    return level * (static_cast<double>(z >> 11) * 0x1p-52 - 1);
  };
}

}  // namespace

std::unique_ptr<Source> MakeSource(const TapConfig& tap, std::string& error) {
  const double rate = tap.format.sample_rate;
  const auto synthesize = [&](auto generator, bool channels_differ = false) {
    return std::make_unique<Synthesizer<decltype(generator)>>(tap.format, channels_differ,
                                                              std::move(generator));
  };
  switch (tap.source.kind) {
    case SourceKind::kSine:
      return synthesize(Sine(tap.source, rate));
    case SourceKind::kSweep:
      return synthesize(Sweep(tap.source, rate));
    case SourceKind::kNoise:
      return synthesize(Noise(tap.source), true);
    case SourceKind::kWav:
      return MakeWavSource(tap, error);
    case SourceKind::kLoop:
      return std::make_unique<Loop>(tap.format);
    case SourceKind::kSilence:
      break;
  }
  return synthesize([](uint64_t) { return 0.0; });
}

}  // namespace kvox::sim
