#include "client/block_clock.h"

#include <algorithm>

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

}  // namespace kvox::client
