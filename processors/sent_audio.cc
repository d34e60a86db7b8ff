#include "processors/sent_audio.h"

namespace kvox {

SentAudio::~SentAudio() {
  MutexLock lock(writers_);
  if (has_memory_) budget_.GiveBack(Charge());
}

bool SentAudio::Put(std::span<const uint8_t> block) {
  MutexLock lock(writers_);
  if (!has_memory_ && !budget_.Take(Charge())) return false;
  has_memory_ = true;
  slots_[writing_].assign(block.begin(), block.end());
  // Release: the reader sees the block we wrote. Acquire: it is done with the slot we get.
  const auto unread = static_cast<uint8_t>(writing_ | kUnread);
  writing_ = waiting_.exchange(unread, std::memory_order_acq_rel) & kNumber;
  return true;
}

std::span<const std::byte> SentAudio::Take() {
  // Relaxed: only a hint; a block that arrives right now is taken the next time.
  if ((waiting_.load(std::memory_order_relaxed) & kUnread) == 0) return {};
  // Acquire: we see what the writer wrote. Release: it sees that we are done with our slot.
  reading_ = waiting_.exchange(reading_, std::memory_order_acq_rel) & kNumber;
  return std::as_bytes(std::span<const uint8_t>(slots_[reading_]));
}

}  // namespace kvox
