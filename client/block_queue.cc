#include "client/block_queue.h"

#include <algorithm>
#include <utility>

#include "client/relay_session.h"

namespace kvox::client {

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
