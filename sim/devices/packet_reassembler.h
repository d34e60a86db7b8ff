// Cuts the byte stream of an inject device into packets again. Written from docs/protocol.md with
// checks of its own, so that it does not share a fault with those who write the stream. Pure; one
// thread at a time.
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
  uint64_t bad_headers = 0;  // another version or an impossible size behind the magic
  uint64_t torn = 0;         // packets that ended where the next one began
  uint64_t junk_bytes = 0;   // that belong to no packet, the torn ones' included
};

class PacketReassembler {
 public:
  /// Called for every packet; the payload is only there during the call.
  using Taker =
      std::function<void(const KvoxPacketHeader& header, std::span<const std::byte> payload)>;

  explicit PacketReassembler(Taker taker) : taker_(std::move(taker)) {}

  void Feed(std::span<const std::byte> bytes);
  /// The writer has gone: what there is of a packet is junk.
  void DropPartial() {
    counts_.junk_bytes += buffer_.size();
    buffer_.clear();
  }
  const ReassemblyCounts& counts() const { return counts_; }

 private:
  size_t TakeFront(std::span<const std::byte> bytes);

  const Taker taker_;
  std::vector<std::byte> buffer_;
  ReassemblyCounts counts_;
};

}  // namespace kvox::sim
