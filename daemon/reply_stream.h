// Splits what the control device delivers into records. The device may be a byte stream, so a read
// can hold several records or end in the middle of one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kvox {

class ReplyStream {
 public:
  /// Takes what a read brought. Returns the records that are complete now, in order: each as long
  /// as its size field says. Where that field makes no sense, everything at hand is one record.
  std::vector<std::vector<std::byte>> Append(std::span<const std::byte> bytes);

  /// Whether a record has begun and not ended.
  bool partial() const { return !pending_.empty(); }

  /// Drops a record that has begun. Returns how much of it there was.
  size_t DropPartial();

 private:
  std::vector<std::byte> pending_;
};

}  // namespace kvox
