// The blocks on their way from the thread that serves the daemon to the one that writes.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <cstdint>
#include <deque>

#include "client/block_clock.h"
#include "kvox/common/mutex.h"

namespace kvox::client {

/// Holds the audio of a stalled disk, but no more than kLongestNs of it. Any thread.
class BlockQueue {
 public:
  using Block = aidl::kvox::IKvox::AudioPacket;
  static constexpr int64_t kLongestNs = 16'000'000'000;

  /// Takes a block that has come now, on the clock of NowNs; counts it as missed when the queue is
  /// full.
  void Push(const Block& block, int64_t now_ns);

  /// Everything that waits, oldest first.
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
