// Says whether audio that went out comes back unharmed. It remembers a fingerprint of every packet
// sent and holds each one that returns against it. Pure; one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

#include "kvox/common/kvox_packet.h"

namespace kvox::sim {

struct RoundTripCounts {
  uint64_t exact = 0;      // came back bit for bit
  uint64_t silent = 0;     // came back as zeros only
  uint64_t different = 0;  // came back with other audio
  uint64_t unknown = 0;    // was not sent, or came back before, or after it was given up
  uint64_t missing = 0;    // did not come back in time
  uint64_t latency_min_ns = 0;
  uint64_t latency_max_ns = 0;
  uint64_t latency_sum_ns = 0;  // of all that came back but the unknown
};

class RoundTrip {
 public:
  /// A packet is missing when it is not back after this time, or when this many followed it.
  static constexpr uint64_t kPatienceNs = 2'000'000'000;
  static constexpr size_t kMemory = 4096;

  void Sent(const KvoxPacketHeader& header, std::span<const std::byte> payload);
  void Returned(const KvoxPacketHeader& header, std::span<const std::byte> payload,
                uint64_t now_ns);
  /// Gives up what is overdue at `now_ns`.
  void Expire(uint64_t now_ns);

  const RoundTripCounts& counts() const { return counts_; }
  /// Packets that may still come back.
  uint64_t in_flight() const { return in_flight_; }

 private:
  struct Entry {
    uint64_t stamp;  // time of sending; tells the packets of two streams apart
    uint32_t packet_num;
    bool silent;
    bool returned;
    uint64_t fingerprint;
  };
  void Forget();

  std::deque<Entry> entries_;  // in the order of sending
  uint64_t in_flight_ = 0;
  RoundTripCounts counts_;
};

}  // namespace kvox::sim
