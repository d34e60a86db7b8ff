#include "client/audio/level_meter.h"

#include <algorithm>
#include <cmath>

#include "kvox/common/fixed_text.h"
#include "libkvox/audio/samples.h"

namespace kvox::client {
namespace {

constexpr double kHold_s = 1.5;
constexpr double kLowest_dbfs = -60;  // of a bar

double Dbfs(double level) {
  return level <= 0 ? kSilence_dbfs : std::max(kSilence_dbfs, 20 * std::log10(level));
}

/// The largest value that a sample can have.
double FullScale(const SoundFormat& format) {
  if (format.encoding == Kvox::DataFormat::FLOAT) return 1;
  if (format.encoding == Kvox::DataFormat::SULAW) return 32124.0 / 32768;
  return 1 - std::ldexp(1.0, 1 - static_cast<int>(format.bits));
}

}  // namespace

void LevelMeter::Add(const Block& block) {
  const size_t count = block.format.channels;
  const double full_scale = FullScale(block.format);
  sample_rate_ = block.format.sample_rate;
  channels_.resize(count);
  samples_.resize(block.frames() * count);
  Decode(block.data, block.format, samples_);
  missing_ += block.missing;
  position_ += block.missing;
  const auto hold = static_cast<uint64_t>(kHold_s * sample_rate_);
  for (size_t i = 0; i < samples_.size(); ++i) {
    Channel& channel = channels_[i % count];
    const double value = std::abs(samples_[i]);
    channel.peak = std::max(channel.peak, value);
    channel.square_sum += value * value;
    if (value >= full_scale) ++channel.clipped;
    if (value >= channel.hold || position_ > channel.hold_until) {
      channel.hold = value;
      channel.hold_until = position_ + hold;
    }
    if (i % count == count - 1) ++position_;
  }
  frames_ += block.frames();
}

std::vector<Level> LevelMeter::Take() {
  std::vector<Level> levels;
  for (Channel& channel : channels_) {
    const double mean = frames_ == 0 ? 0 : channel.square_sum / static_cast<double>(frames_);
    levels.push_back({.peak_dbfs = Dbfs(channel.peak),
                      .rms_dbfs = Dbfs(std::sqrt(mean)),
                      .hold_dbfs = Dbfs(channel.hold),
                      .clipped = channel.clipped});
    channel.peak = channel.square_sum = 0;
  }
  frames_ = 0;
  return levels;
}

std::string BarOf(const Level& level, size_t width) {
  const auto place = [width](double dbfs) {
    const double share = std::clamp(1 - dbfs / kLowest_dbfs, 0.0, 1.0);
    return static_cast<size_t>(std::lround(share * static_cast<double>(width)));
  };
  std::string bar(place(level.rms_dbfs), '#');
  bar.resize(std::max(bar.size(), place(level.peak_dbfs)), '-');
  bar.resize(width, ' ');
  const size_t hold = place(level.hold_dbfs);
  if (hold > 0) bar[std::min(hold, width) - 1] = '|';
  return "[" + bar + "]" +
         FormatText<96>(" peak %6.1f  rms %6.1f  hold %6.1f dBFS", level.peak_dbfs, level.rms_dbfs,
                        level.hold_dbfs) +
         (level.clipped > 0 ? "  CLIP " + std::to_string(level.clipped) : "");
}

}  // namespace kvox::client
