// Splits the control device's bytes into records. The device may be a byte stream, so a read can
// hold several records or end in the middle of one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kvox {

class ReplyStream {
 public:
  /// Takes the bytes of a read. Returns the records that are now complete, in order, each as long
  /// as its size field says. If that field is invalid, all remaining bytes are one record.
  std::vector<std::vector<std::byte>> Append(std::span<const std::byte> bytes);

  /// Whether a record is incomplete.
  bool partial() const { return !pending_.empty(); }

  /// Drops an incomplete record. Returns how many bytes of it there were.
  size_t DropPartial();

 private:
  std::vector<std::byte> pending_;
};

}  // namespace kvox
