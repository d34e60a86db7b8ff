// When the blocks of a stream are due. Every due time follows from the frames since the stream
// began, so that rounding and late wake-ups never add up to a drift. The caller has the clock.
#pragma once

#include <algorithm>
#include <cstdint>

namespace kvox::sim {

/// How far behind a stream may fall and still send everything that was due. After a longer stall
/// blocks are skipped, as a device would have overwritten them.
inline constexpr uint64_t kCatchUpNs = 500'000'000;

/// At this speed a block of the longest packet takes minutes, and due times are in the clock's
/// range.
inline constexpr double kMinSpeed = 0.001;

class Pacer {
 public:
  /// `rate` in Hz, above 0; `speed` is 1 for real time, 2 for twice as fast, kMinSpeed at least.
  Pacer(uint32_t rate, double speed) : frames_per_ns_(rate * std::max(speed, kMinSpeed) / 1e9) {}

  void Start(uint64_t now_ns) {
    start_ns_ = now_ns;
    frames_ = 0;
  }

  /// Frames since the start.
  uint64_t frames() const { return frames_; }
  void Advance(uint64_t frames) { frames_ += frames; }

  /// When the next block of `length` frames is complete.
  uint64_t NextDue(uint32_t length) const {
    return start_ns_ +
           static_cast<uint64_t>(static_cast<double>(frames_ + length) / frames_per_ns_);
  }

  /// Blocks of `length` frames that are complete at `now_ns`.
  uint64_t BlocksDue(uint64_t now_ns, uint32_t length) const {
    if (now_ns < NextDue(length)) return 0;
    const double frames = static_cast<double>(now_ns - start_ns_) * frames_per_ns_;
    const auto complete = static_cast<uint64_t>(frames);
    const uint64_t blocks = complete > frames_ ? (complete - frames_) / length : 0;
    return blocks > 0 ? blocks : 1;  // NextDue and the product above may round apart
  }

  /// Blocks to skip after a stall: all that are due but the latest.
  uint64_t BlocksToSkip(uint64_t now_ns, uint32_t length) const {
    const bool stalled = now_ns > NextDue(length) + kCatchUpNs;
    return stalled ? BlocksDue(now_ns, length) - 1 : 0;
  }

 private:
  const double frames_per_ns_;
  uint64_t start_ns_ = 0;
  uint64_t frames_ = 0;
};

}  // namespace kvox::sim
