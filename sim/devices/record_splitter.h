// Splits the byte stream of the control device into records by their size field. One thread at a
// time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

namespace kvox::sim {

class RecordSplitter {
 public:
  /// Longer records than this are junk; commands have 16 to 44 bytes.
  static constexpr size_t kMaxRecord = 256;

  using Callback = std::function<void(std::span<std::byte> record)>;

  explicit RecordSplitter(Callback on_record) : on_record_(std::move(on_record)) {}

  void Feed(std::span<const std::byte> bytes);
  /// True while a record is incomplete.
  bool partial() const { return !buffer_.empty(); }
  /// The rest of a record did not follow in time, so its first byte did not begin one: finds the
  /// records after that byte, and counts everything else as junk.
  void GiveUpPartial();
  /// The writer is gone: a partial record is junk.
  void DropPartial() {
    junk_bytes_ += buffer_.size();
    buffer_.clear();
  }

  uint64_t junk_bytes() const { return junk_bytes_; }

 private:
  const Callback on_record_;
  std::vector<std::byte> buffer_;
  uint64_t junk_bytes_ = 0;
};

}  // namespace kvox::sim
