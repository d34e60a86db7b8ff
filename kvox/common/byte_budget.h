// A memory limit shared by several objects.
#pragma once

#include <atomic>
#include <cstddef>

namespace kvox {

/// Any thread but an I/O thread. Every Take() that succeeded is followed by one GiveBack() of the
/// same size.
class ByteBudget {
 public:
  explicit ByteBudget(size_t bytes) : size_(bytes) {}

  /// False, without taking anything, when less than that is left.
  bool Take(size_t bytes) {
    size_t taken = taken_.load(std::memory_order_relaxed);
    do {
      if (bytes > size_ - taken) return false;
    } while (!taken_.compare_exchange_weak(taken, taken + bytes, std::memory_order_relaxed));
    return true;
  }
  void GiveBack(size_t bytes) { taken_.fetch_sub(bytes, std::memory_order_relaxed); }

  size_t size() const { return size_; }

 private:
  const size_t size_;
  std::atomic<size_t> taken_ = 0;  // only a count, publishes nothing
};

}  // namespace kvox
