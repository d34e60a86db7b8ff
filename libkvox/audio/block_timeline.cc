#include "libkvox/audio/block_timeline.h"

#include <algorithm>
#include <cmath>

#include "libkvox/audio/packet_format.h"

namespace kvox::client {
namespace {

constexpr int64_t kMostAheadNs = 500'000'000;  // of the clock, when packets come in a burst
// Later ones are the first of numbers that begin anew.
constexpr uint32_t kLatestRepetition = 64;  // packets
constexpr uint64_t kLatestRepetitionNs = 400'000'000;
constexpr int64_t kFollow = 16;  // the part of a block's lateness that counts as drift

}  // namespace

BlockTimeline::Place BlockTimeline::Next(const std::optional<BlockMatcher::Match>& match,
                                         uint64_t received_ns, uint64_t frames,
                                         uint32_t sample_rate) {
  Place place;
  const uint64_t at_ns = match ? match->record.arrived_ns : received_ns;
  const bool counts = match && last_;
  const uint32_t ahead = counts ? match->record.number - last_->number : 0;
  if (counts && (match->record.flags & flight::kRepeated) != 0 && -ahead < kLatestRepetition &&
      at_ns - last_->arrived_ns < kLatestRepetitionNs) {
    place.repeated = true;
    return place;
  }
  const uint64_t by_clock = MissingByClock(at_ns, frames, sample_rate);
  if (counts && ahead >= 1 && (!match->renumbered || ahead == 1) &&
      IsPossible(ahead, at_ns, sample_rate)) {
    const uint64_t missing = (ahead - 1) * last_frames_;
    place.missing = missing - std::min(missing, since_last_);
    expected_ns_ = static_cast<int64_t>(at_ns) + DurationNs(frames, sample_rate);
  } else {
    place.missing = by_clock;
    place.estimated = by_clock > 0;
  }
  since_last_ = match ? 0 : since_last_ + frames + place.missing;
  if (match) last_ = match->record;
  last_frames_ = frames;
  return place;
}

/// Whether so many packets can have been sent since the last one. A wrong number is no gap.
bool BlockTimeline::IsPossible(uint32_t packets, uint64_t at_ns, uint32_t sample_rate) const {
  const auto since_ns = static_cast<int64_t>(at_ns - last_->arrived_ns);
  return DurationNs(packets * last_frames_, sample_rate) <= since_ns + kMostAheadNs;
}

/// Follows the drift between the clocks, but not gaps.
uint64_t BlockTimeline::MissingByClock(uint64_t at_ns, uint64_t frames, uint32_t sample_rate) {
  const auto now_ns = static_cast<int64_t>(at_ns);
  const int64_t block_ns = DurationNs(frames, sample_rate);
  if (expected_ns_ == 0) expected_ns_ = now_ns;
  int64_t late_ns = now_ns - expected_ns_;
  uint64_t missing = 0;
  if (block_ns > 0 && late_ns > block_ns * 3 / 4) {
    missing = static_cast<uint64_t>(std::llround(static_cast<double>(late_ns) * sample_rate / 1e9));
    expected_ns_ = now_ns;
    late_ns = 0;
  }
  expected_ns_ += block_ns + late_ns / kFollow;
  return missing;
}

}  // namespace kvox::client
