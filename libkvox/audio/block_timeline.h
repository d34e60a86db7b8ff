// Where the blocks of a stream are on its time line: how many frames are missing between them.
//
// Pure: no I/O. One thread.
#pragma once

#include <cstdint>
#include <optional>

#include "libkvox/audio/block_matcher.h"

namespace kvox::client {

class BlockTimeline {
 public:
  struct Place {
    uint64_t missing = 0;    // frames between the block before and this one
    bool repeated = false;   // it has come before
    bool estimated = false;  // `missing` is known from the clock alone
  };

  /// A block of `frames` that was received at `received_ns`, and its packet, where that is known.
  /// Packets are counted by their numbers; where the numbers began anew or cannot be right, by when
  /// they arrived; and where there is no packet, by when blocks are received, which jitters, so
  /// that a gap counts only when a block is most of its length late.
  Place Next(const std::optional<BlockMatcher::Match>& match, uint64_t received_ns, uint64_t frames,
             uint32_t sample_rate);

  /// The daemon was restarted: numbers and delays begin anew.
  void Restart() { last_.reset(); }

 private:
  bool IsPossible(uint32_t packets, uint64_t at_ns, uint32_t sample_rate) const;
  uint64_t MissingByClock(uint64_t at_ns, uint64_t frames, uint32_t sample_rate);

  std::optional<flight::PacketRecord> last_;
  uint64_t since_last_ = 0;  // frames without a packet since, and those that were missing then
  uint64_t last_frames_ = 0;
  int64_t expected_ns_ = 0;  // when the next block is due; 0 before the first
};

}  // namespace kvox::client
