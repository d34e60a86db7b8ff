#include "client/audio/block_queue.h"

#include <algorithm>
#include <utility>

#include "client/audio/relay_session.h"

namespace kvox::client {

void BlockClock::Arrived(int64_t now_ns, int64_t block_ns) {
  constexpr int64_t kFollow = 16;  // the part of a block's lateness that counts as drift
  if (block_ns <= 0) return;
  if (!running_) expected_ns_ = now_ns;
  running_ = true;
  while (now_ns - expected_ns_ > block_ns * 3 / 4) {
    expected_ns_ += block_ns;
    ++missed_;
  }
  while (missed_ > 0 && expected_ns_ - now_ns > block_ns * 3 / 4) {
    expected_ns_ -= block_ns;
    --missed_;
  }
  expected_ns_ += block_ns + (now_ns - expected_ns_) / kFollow;
}

void BlockQueue::Push(const Block& block, int64_t now_ns) {
  constexpr int64_t kShortestNs = 10'000'000;  // so that blocks without a length fill it, too
  const int64_t block_ns = BlockNs(block);
  MutexLock lock(mutex_);
  clock_.Arrived(now_ns, block_ns);
  if (length_ns_ >= kLongestNs) {
    ++dropped_;
    return;
  }
  length_ns_ += std::max(block_ns, kShortestNs);
  blocks_.push_back(block);
}

std::deque<BlockQueue::Block> BlockQueue::TakeAll() {
  MutexLock lock(mutex_);
  length_ns_ = 0;
  return std::exchange(blocks_, {});
}

uint64_t BlockQueue::missed() const {
  MutexLock lock(mutex_);
  return dropped_ + clock_.missed();
}

}  // namespace kvox::client
