// Splits the byte stream of an inject device into packets. Shares no code with the daemon, which
// writes that stream, so that neither hides a fault of the other. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "kvox/common/kvox_packet.h"

namespace kvox::sim {

struct ReassemblyCounts {
  uint64_t packets = 0;
  uint64_t bad_headers = 0;  // wrong version or invalid size after the magic
  uint64_t torn = 0;         // packets that ended where the next one began
  uint64_t junk_bytes = 0;   // outside of whole packets
};

class PacketReassembler {
 public:
  /// The payload is only there during the call.
  using Callback =
      std::function<void(const KvoxPacketHeader& header, std::span<const std::byte> payload)>;

  explicit PacketReassembler(Callback on_packet) : on_packet_(std::move(on_packet)) {}

  void Feed(std::span<const std::byte> bytes);
  /// The writer is gone: a partial packet is junk.
  void DropPartial() {
    counts_.junk_bytes += buffer_.size();
    buffer_.clear();
  }
  const ReassemblyCounts& counts() const { return counts_; }

 private:
  size_t TakeFront(std::span<const std::byte> bytes);

  const Callback on_packet_;
  std::vector<std::byte> buffer_;
  ReassemblyCounts counts_;
};

}  // namespace kvox::sim
