// The block from a relay's client that waits for the next block of the tap.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kvox/common/byte_budget.h"
#include "kvox/common/mutex.h"

namespace kvox {

/// Passes blocks of one size from service threads to one I/O thread; a newer block replaces one
/// that still waits. Three slots: one being written, one waiting, one being read. Each side owns
/// its slot and swaps it for the waiting one, so neither waits for the other.
class SentAudio {
 public:
  /// Memory that every relay has; enough for a phone call.
  static constexpr size_t kFreeBytes = 16 << 10;

  /// The slots are charged to `budget`, which outlives them, from the first block on. Slots that
  /// fit into kFreeBytes are free.
  SentAudio(size_t block_size, ByteBudget& budget) : block_size_(block_size), budget_(budget) {}
  ~SentAudio();
  SentAudio(const SentAudio&) = delete;
  SentAudio& operator=(const SentAudio&) = delete;

  size_t block_size() const { return block_size_; }

  /// Service threads: copies a block of block_size() bytes; it is pending from then on. False
  /// when the budget is used up.
  bool Put(std::span<const uint8_t> block);

  /// RT: takes the pending block, which is the reader's until its next Take. Empty when none has
  /// come since.
  std::span<const std::byte> Take();

 private:
  /// A slot's number, and a flag for one that has not been read yet.
  static constexpr uint8_t kUnread = 0x80;
  static constexpr uint8_t kNumber = 0x03;

  size_t Charge() const {
    const size_t size = slots_.size() * block_size_;
    return size <= kFreeBytes ? 0 : size;
  }

  const size_t block_size_;
  ByteBudget& budget_;
  std::array<std::vector<uint8_t>, 3> slots_;  // allocated by the writers when first used
  std::atomic<uint8_t> waiting_ = 1;
  Mutex writers_;  // a leaf lock; never the reader's
  bool has_memory_ GUARDED_BY(writers_) = false;
  uint8_t writing_ GUARDED_BY(writers_) = 0;
  uint8_t reading_ = 2;  // the reader's own
};

}  // namespace kvox
