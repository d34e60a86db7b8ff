#include "client/audio/play_source.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "libkvox/audio/samples.h"

namespace kvox::client {
namespace {

constexpr size_t kFramesAtOnce = 4096;

/// Mono goes to every channel, and is the mean of all of them; apart from that channels that are
/// too many are left out, and others repeated.
std::vector<double> WithChannels(std::span<const double> frames, size_t from, size_t to) {
  std::vector<double> result;
  result.reserve(frames.size() / from * to);
  for (size_t at = 0; at + from <= frames.size(); at += from) {
    const auto frame = frames.subspan(at, from);
    if (to == 1) {
      double sum = 0;
      for (const double sample : frame) sum += sample;
      result.push_back(sum / static_cast<double>(from));
      continue;
    }
    for (size_t channel = 0; channel < to; ++channel) result.push_back(frame[channel % from]);
  }
  return result;
}

}  // namespace

void PlaySource::ConvertTo(const SoundFormat& format) {
  format_ = format;
  gain_ = std::pow(10.0, options_.gain_db / 20);
  const bool fits = file_.sample_rate() == format.sample_rate &&
                    (file_.channels() == format.channels || file_.channels() == 1);
  as_is_ = options_.gain_db == 0 && (!options_.convert || (fits && file_.CanConvertTo(format)));
  if (as_is_) return file_.ConvertTo(format);
  if (!options_.convert && !fits) file_.ConvertTo(format);  // throws, and says what does not fit
  if (file_.sample_rate() != format.sample_rate) {
    resampler_.emplace(format.channels, file_.sample_rate(), format.sample_rate);
  }
}

bool PlaySource::Fill(std::span<std::byte> block) {
  return as_is_ ? FillAsIs(block) : FillConverted(block);
}

bool PlaySource::FillAsIs(std::span<std::byte> block) {
  size_t got = file_.Read(block);
  while (options_.loop && got < block.size()) {
    file_.Seek(0);
    const size_t more = file_.Read(block.subspan(got));
    if (more == 0) break;
    got += more;
  }
  return got > 0;
}

void PlaySource::ReadMore() {
  std::vector<double> frames(kFramesAtOnce * file_.channels());
  size_t got = file_.ReadDoubles(frames);
  if (got == 0 && options_.loop) {
    file_.Seek(0);
    got = file_.ReadDoubles(frames);
  }
  at_end_ = got == 0;
  frames.resize(got * file_.channels());
  const auto mixed = WithChannels(frames, file_.channels(), format_.channels);
  if (resampler_) {
    resampler_->Convert(mixed, at_end_, ready_);
  } else {
    ready_.insert(ready_.end(), mixed.begin(), mixed.end());
  }
}

bool PlaySource::FillConverted(std::span<std::byte> block) {
  const size_t wanted = block.size() / format_.FrameSize() * format_.channels;
  while (ready_.size() < wanted && !at_end_) ReadMore();
  const size_t got = std::min(wanted, ready_.size());
  std::vector<double> samples(ready_.begin(), ready_.begin() + static_cast<ptrdiff_t>(got));
  ready_.erase(ready_.begin(), ready_.begin() + static_cast<ptrdiff_t>(got));
  for (double& sample : samples) sample = std::clamp(sample * gain_, -1.0, 1.0);
  samples.resize(wanted, 0.0);
  Encode(samples, format_, block);
  return got > 0;
}

}  // namespace kvox::client
