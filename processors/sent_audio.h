// The block that a client has sent to a relay and that waits for the next block of the tap.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kvox/common/mutex.h"
#include "processors/byte_budget.h"

namespace kvox {

/// Blocks of one size from any number of service threads to one I/O thread, the newest of which
/// replaces one that is still waiting. Three slots: one being written, one waiting, one being read.
/// Each side owns its slot and trades it for the waiting one, so neither waits for the other.
class SentAudio {
 public:
  /// What a call on the telephone needs, and every relay has.
  static constexpr size_t kOwnRoom = 16 << 10;

  /// Its slots come out of `room`, which outlives it, from the first block on; unless they fit into
  /// kOwnRoom.
  SentAudio(size_t block_size, ByteBudget& room) : block_size_(block_size), room_(room) {}
  ~SentAudio();
  SentAudio(const SentAudio&) = delete;
  SentAudio& operator=(const SentAudio&) = delete;

  size_t block_size() const { return block_size_; }

  /// Service threads: copies a block of block_size() bytes; it is pending from then on. False
  /// when there is no room for the slots.
  bool Put(std::span<const uint8_t> block);

  /// RT: takes the pending block, which is the reader's until its next Take. Empty when none has
  /// come since the last one.
  std::span<const std::byte> Take();

 private:
  /// A slot's number, and whether nobody has read it yet.
  static constexpr uint8_t kUnread = 0x80;
  static constexpr uint8_t kNumber = 0x03;

  size_t Charge() const {
    const size_t size = slots_.size() * block_size_;
    return size <= kOwnRoom ? 0 : size;
  }

  const size_t block_size_;
  ByteBudget& room_;
  std::array<std::vector<uint8_t>, 3> slots_;  // allocated by the writers when first used
  std::atomic<uint8_t> waiting_ = 1;
  Mutex writers_;  // a leaf lock; never the reader's
  bool has_room_ GUARDED_BY(writers_) = false;
  uint8_t writing_ GUARDED_BY(writers_) = 0;
  uint8_t reading_ = 2;  // the reader's own
};

}  // namespace kvox
