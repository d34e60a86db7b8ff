// The queue of blocks from the thread that serves the daemon to the one that writes.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <cstdint>
#include <deque>

#include "kvox/common/mutex.h"

namespace kvox::client {

/// Counts missing blocks of a stream. Blocks jitter and clocks drift, so a gap counts only when a
/// block comes most of a block late, and is taken back when blocks then come that much early.
class BlockClock {
 public:
  /// A block of this length arrives now; both in nanoseconds. One of length 0 does not count.
  void Arrived(int64_t now_ns, int64_t block_ns);

  uint64_t missed() const { return missed_; }

 private:
  bool running_ = false;
  int64_t expected_ns_ = 0;
  uint64_t missed_ = 0;
};

/// Buffers up to kLongestNs of audio while the disk stalls. Any thread.
class BlockQueue {
 public:
  using Block = aidl::kvox::IKvox::AudioPacket;
  static constexpr int64_t kLongestNs = 16'000'000'000;

  /// Queues a block that arrived at `now_ns`, on the clock of NowNs; counts it as missed when the
  /// queue is full.
  void Push(const Block& block, int64_t now_ns);

  /// Everything that is queued, oldest first.
  std::deque<Block> TakeAll();

  /// Blocks that never came or found the queue full.
  uint64_t missed() const;

 private:
  mutable Mutex mutex_;
  std::deque<Block> blocks_ GUARDED_BY(mutex_);
  int64_t length_ns_ GUARDED_BY(mutex_) = 0;
  uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  BlockClock clock_ GUARDED_BY(mutex_);
};

}  // namespace kvox::client
