#include "client/audio/track.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <utility>

#include "libkvox/audio/samples.h"

namespace kvox::client {
namespace {

constexpr double kNsPerSecond = 1e9;
constexpr uint64_t kLongestWait_s = 60;  // for a stream while others go on

/// A format that holds the samples of both.
SoundFormat Wider(SoundFormat one, const SoundFormat& other) {
  if (one.encoding == other.encoding) {
    one.bits = std::max(one.bits, other.bits);
  } else if (one.encoding == Kvox::DataFormat::FLOAT || other.encoding == Kvox::DataFormat::FLOAT) {
    one.encoding = Kvox::DataFormat::FLOAT;
    one.bits = 32;
  } else {  // mu-law beside integers
    one.encoding = Kvox::DataFormat::INT;
    one.bits = std::max({one.bits, other.bits, 16u});
  }
  return one;
}

}  // namespace

Track::Track(std::vector<std::string> points) {
  for (std::string& point : points) streams_.push_back({.point = std::move(point)});
}

void Track::Begin(Stream& stream, const Block& block) {
  stream.format = block.format;
  stream.begin_ns = block.arrived_ns;
  stream.begin_stamp = block.stamp;
  for (const Stream& other : streams_) {
    if (!other.format || other.format->sample_rate == block.format.sample_rate) continue;
    throw UsageError(stream.point + " has " + Describe(block.format) + ", and " + other.point +
                     " has " + Describe(*other.format) +
                     "; record them with --each, a file for each");
  }
}

void Track::Add(size_t index, Block block) {
  Stream& stream = streams_[index];
  if (!stream.format) Begin(stream, block);
  if (*stream.format != block.format) {
    throw Failure(kRefused, stream.point + " changed from " + Describe(*stream.format) + " to " +
                                Describe(block.format) + "; the file ends there");
  }
  const uint64_t frames = block.frames();
  const auto before_begin = static_cast<uint64_t>(std::max<int64_t>(-stream.end, 0));
  if (block.missing > before_begin) {
    gaps_.push_back({.point = stream.point,
                     .position = static_cast<uint64_t>(std::max<int64_t>(stream.end, 0)),
                     .frames = block.missing - before_begin,
                     .blocks = frames == 0 ? 1 : (block.missing + frames - 1) / frames,
                     .estimated = block.estimated,
                     .cause = block.cause});
  }
  ++blocks_;
  if (++stream.blocks == 2 && block.stamp && stream.begin_stamp && block.missing == 0 &&
      *block.stamp > *stream.begin_stamp) {
    const double block_ns = static_cast<double>(frames) * kNsPerSecond / block.format.sample_rate;
    stream.ns_per_stamp = block_ns / static_cast<double>(*block.stamp - *stream.begin_stamp);
  }
  Append(stream, block.missing, std::move(block.data));
  Align();
}

void Track::Append(Stream& stream, uint64_t silence, std::vector<std::byte> data) {
  const uint64_t frames = data.size() / stream.format->FrameSize();
  if (silence > 0) stream.pieces.push_back({.frames = silence});
  if (frames > 0) stream.pieces.push_back({.frames = frames, .data = std::move(data)});
  stream.end += static_cast<int64_t>(silence + frames);
  Discard(stream);
}

/// What was taken as silence before it came, or came before the others had begun.
void Track::Discard(Stream& stream) {
  while (stream.behind > 0 && !stream.pieces.empty()) {
    Piece& piece = stream.pieces.front();
    const uint64_t count = std::min(stream.behind, piece.frames - piece.used);
    piece.used += count;
    stream.behind -= count;
    if (piece.used == piece.frames) stream.pieces.pop_front();
  }
}

/// When the stream's first block was sent, in nanoseconds after the reference's: by the
/// co-processor's stamps, if they are a clock that both share, else by when the blocks arrived.
double Track::BeginOf(const Stream& stream, const Stream& reference) const {
  constexpr double kSameUnit = 0.01;
  constexpr double kLongestDelayNs = 50e6;  // between sending and arrival
  const double by_arrival =
      static_cast<double>(stream.begin_ns) - static_cast<double>(reference.begin_ns);
  const double unit = reference.ns_per_stamp;
  if (unit <= 0 || std::abs(stream.ns_per_stamp / unit - 1) > kSameUnit) return by_arrival;
  const double by_stamp = unit * (static_cast<double>(*stream.begin_stamp) -
                                  static_cast<double>(*reference.begin_stamp));
  return std::abs(by_stamp - by_arrival) < kLongestDelayNs ? by_stamp : by_arrival;
}

/// Once all streams have two blocks: what came before the last one began is left out.
void Track::Align() {
  const auto has_begun = [this](const Stream& stream) {
    return stream.ended || stream.blocks >= (streams_.size() > 1 ? 2 : 1);
  };
  if (aligned_ || !std::ranges::all_of(streams_, has_begun)) return;
  aligned_ = true;
  const auto reference = std::ranges::find_if(
      streams_, [](const Stream& stream) { return stream.format.has_value(); });
  if (reference == streams_.end()) return;
  double last_ns = 0;
  for (const Stream& stream : streams_) {
    if (stream.format) last_ns = std::max(last_ns, BeginOf(stream, *reference));
  }
  for (Stream& stream : streams_) {
    if (!stream.format) continue;
    const double earlier_ns = last_ns - BeginOf(stream, *reference);
    BeginAt(stream, std::llround(earlier_ns * stream.format->sample_rate / kNsPerSecond));
  }
}

/// Leaves out what was before the frame, also of gaps.
void Track::BeginAt(Stream& stream, int64_t frame) {
  stream.end -= frame;
  stream.behind += static_cast<uint64_t>(frame);
  Discard(stream);
  const auto count = static_cast<uint64_t>(frame);
  for (Gap& gap : gaps_) {
    if (gap.point != stream.point) continue;
    const uint64_t cut = std::min(gap.frames, count - std::min(count, gap.position));
    gap.frames -= cut;
    gap.position -= std::min(count, gap.position);
  }
  std::erase_if(gaps_, [](const Gap& gap) { return gap.frames == 0; });
}

uint64_t Track::missed_blocks() const {
  return std::accumulate(gaps_.begin(), gaps_.end(), uint64_t{0},
                         [](uint64_t sum, const Gap& gap) { return sum + gap.blocks; });
}

void Track::End(size_t stream) {
  streams_[stream].ended = true;
  Align();
}

void Track::EndSilent() {
  for (size_t i = 0; i < streams_.size(); ++i) {
    if (streams_[i].blocks == 0) End(i);
  }
}

bool Track::ended() const {
  return std::ranges::all_of(streams_, &Stream::ended);
}

std::optional<SoundFormat> Track::format() const {
  if (!aligned_) return std::nullopt;
  std::optional<SoundFormat> format;
  uint32_t channels = 0;
  for (const Stream& stream : streams_) {
    if (!stream.format) continue;
    channels += stream.format->channels;
    format = format ? Wider(*format, *stream.format) : *stream.format;
  }
  if (format) format->channels = channels;
  return format;
}

uint32_t Track::ChannelOf(const std::string& point) const {
  uint32_t channel = 0;
  for (const Stream& stream : streams_) {
    if (stream.point == point) break;
    channel += stream.format ? stream.format->channels : 0;
  }
  return channel;
}

uint32_t Track::ChannelsOf(const std::string& point) const {
  const auto stream = std::ranges::find(streams_, point, &Stream::point);
  return stream == streams_.end() || !stream->format ? 0 : stream->format->channels;
}

uint64_t Track::ready() const {
  const auto format = this->format();
  if (!format) return 0;
  int64_t longest = 0;
  int64_t shortest = INT64_MAX;
  for (const Stream& stream : streams_) {
    longest = std::max(longest, stream.end);
    if (!stream.ended) shortest = std::min(shortest, stream.end);
  }
  const int64_t late = int64_t{kLongestWait_s} * format->sample_rate;
  const int64_t end = std::max(std::min(shortest, longest), longest - late);
  return static_cast<uint64_t>(std::max(end - static_cast<int64_t>(taken_), int64_t{0}));
}

/// Puts `frames` frames of the stream into `out`, from `channel` on. After its end there is
/// silence.
void Track::TakeFrom(Stream& stream, uint64_t frames, const SoundFormat& format, size_t channel,
                     std::vector<std::byte>& out) {
  const SoundFormat own = stream.format.value_or(format);
  const size_t width = format.bits / 8;
  const size_t own_frame = own.FrameSize();
  std::vector<std::byte> encoded;
  std::vector<double> samples;
  uint64_t at = 0;
  while (at < frames && !stream.pieces.empty()) {
    Piece& piece = stream.pieces.front();
    const uint64_t count = std::min(frames - at, piece.frames - piece.used);
    if (!piece.data.empty()) {
      std::span<const std::byte> from =
          std::span(piece.data).subspan(piece.used * own_frame, count * own_frame);
      if (own.encoding != format.encoding || own.bits != format.bits) {
        samples.resize(count * own.channels);
        encoded.resize(samples.size() * width);
        Decode(from, own, samples);
        Encode(samples, format, encoded);
        from = encoded;
      }
      for (uint64_t i = 0; i < count; ++i) {
        std::memcpy(&out[(at + i) * format.FrameSize() + channel * width],
                    &from[i * own.channels * width], own.channels * width);
      }
    }
    at += count;
    piece.used += count;
    if (piece.used == piece.frames) stream.pieces.pop_front();
  }
  stream.behind += frames - at;
}

std::vector<std::byte> Track::TakeFrames(uint64_t count) {
  const uint64_t frames = std::min(count, ready());
  if (frames == 0) return {};
  const SoundFormat format = *this->format();
  std::vector<std::byte> out(frames * format.FrameSize(), SilenceOf(format));
  size_t channel = 0;
  for (Stream& stream : streams_) {
    if (!stream.format) continue;
    TakeFrom(stream, frames, format, channel, out);
    channel += stream.format->channels;
  }
  taken_ += frames;
  return out;
}

std::vector<Gap> Track::GapsUntil(uint64_t frame) const {
  std::vector<Gap> gaps;
  for (const Gap& gap : gaps_) {
    if (gap.position >= frame) continue;
    gaps.push_back(gap);
    gaps.back().frames = std::min(gap.frames, frame - gap.position);
  }
  std::ranges::stable_sort(gaps, {}, &Gap::position);
  return gaps;
}

}  // namespace kvox::client
