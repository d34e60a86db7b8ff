// The index arithmetic of a ring of bytes, without the storage. One producer and one consumer at a
// time. RT: neither waits for the other.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kvox {

/// Both counters run freely and wrap around at 2^32; only their difference and their position in
/// the ring matter.
class RingCounters {
 public:
  /// Consecutive bytes of the ring: `first` from `offset` on, and `rest` from the ring's front.
  struct Extent {
    size_t offset;
    size_t first;
    size_t rest;
  };

  /// `capacity` is a power of two, at most 2^31. `start` is where both counters begin.
  explicit RingCounters(uint32_t capacity, uint32_t start = 0)
      : written_(start), capacity_(capacity), read_(start) {}

  uint32_t capacity() const { return capacity_; }

  /// Producer: bytes that can be written now, at least.
  uint32_t Writable() const {
    // Acquire: pairs with Release, so the consumer is done with what is overwritten next.
    return capacity_ -
           (written_.load(std::memory_order_relaxed) - read_.load(std::memory_order_acquire));
  }

  /// Producer: `size` bytes, `ahead` bytes after those written last.
  Extent ToWrite(uint32_t ahead, uint32_t size) const {
    return At(written_.load(std::memory_order_relaxed) + ahead, size);
  }

  /// Producer: hands `size` bytes to the consumer.
  void Commit(uint32_t size) {
    // Release: pairs with the acquire in Readable and hands over the bytes.
    written_.store(written_.load(std::memory_order_relaxed) + size, std::memory_order_release);
  }

  /// Consumer: bytes that can be read now, at least.
  uint32_t Readable() const {
    // Acquire: pairs with Commit.
    return written_.load(std::memory_order_acquire) - read_.load(std::memory_order_relaxed);
  }

  /// Consumer: `size` bytes, `ahead` bytes after those released last.
  Extent ToRead(uint32_t ahead, uint32_t size) const {
    return At(read_.load(std::memory_order_relaxed) + ahead, size);
  }

  /// Consumer: gives `size` bytes back to the producer.
  void Release(uint32_t size) {
    // Release: pairs with the acquire in Writable.
    read_.store(read_.load(std::memory_order_relaxed) + size, std::memory_order_release);
  }

 private:
  Extent At(uint32_t position, uint32_t size) const {
    const uint32_t offset = position & (capacity_ - 1);
    const uint32_t first = size < capacity_ - offset ? size : capacity_ - offset;
    return {.offset = offset, .first = first, .rest = size - first};
  }

  // On separate cache lines: avoids false sharing.
  alignas(64) std::atomic<uint32_t> written_;
  const uint32_t capacity_;
  alignas(64) std::atomic<uint32_t> read_;
};

}  // namespace kvox
