// Counts the blocks that a stream should have brought and did not. Pure.
#pragma once

#include <cstdint>

namespace kvox::client {

/// Follows the arrival of blocks. Blocks jitter and clocks drift, so a gap counts only when a block
/// comes most of a block late, and is taken back when blocks then come that much early.
class BlockClock {
 public:
  /// A block of this length arrives now; both in nanoseconds. One without a length tells nothing.
  void Arrived(int64_t now_ns, int64_t block_ns);

  uint64_t missed() const { return missed_; }

 private:
  bool running_ = false;
  int64_t expected_ns_ = 0;
  uint64_t missed_ = 0;
};

}  // namespace kvox::client
