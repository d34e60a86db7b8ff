// Checks whether audio comes back as it was sent: keeps a hash of every packet sent and compares
// each packet that returns. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

#include "kvox/common/kvox_packet.h"

namespace kvox::sim {

struct RoundTripCounts {
  uint64_t exact = 0;           // returned bit for bit
  uint64_t silent = 0;          // returned as zeros
  uint64_t different = 0;       // returned with other audio
  uint64_t unknown = 0;         // was never sent, or returned twice or too late
  uint64_t missing = 0;         // did not return in time
  uint64_t spoiled = 0;         // was excused, and did not return exact
  uint64_t exact_in_row = 0;    // the last ones, back to the first that was not
  uint64_t back = 0;            // all that returned, except the unknown
  uint64_t latency_min_ns = 0;  // of these
  uint64_t latency_max_ns = 0;
  uint64_t latency_sum_ns = 0;
};

class RoundTrip {
 public:
  /// A packet is missing when it has not returned after this time, or when this many followed it.
  static constexpr uint64_t kTimeoutNs = 2'000'000'000;
  static constexpr size_t kMaxEntries = 4096;

  /// The longest time that packets are excused after something took packets away.
  static constexpr uint64_t kRecoveryNs = 10'000'000'000;

  /// A packet that is `excused` need not return: a fault has struck it.
  void Sent(const KvoxPacketHeader& header, std::span<const std::byte> payload,
            bool excused = false);
  void Returned(const KvoxPacketHeader& header, std::span<const std::byte> payload,
                uint64_t now_ns);
  /// Something takes packets away until `until_ns`. Excuses those in flight, and those sent until
  /// the first packet from after that time has returned.
  void ExcuseLosses(uint64_t until_ns);
  /// The same, from `impaired` to not `impaired`.
  void SetImpaired(bool impaired, uint64_t now_ns);
  /// Gives up what is overdue at `now_ns`.
  void Expire(uint64_t now_ns);

  const RoundTripCounts& counts() const { return counts_; }
  /// Packets that may still return.
  uint64_t in_flight() const { return in_flight_; }

 private:
  struct Entry {
    uint64_t stamp;  // time of sending; tells the packets of two streams apart
    uint32_t packet_num;
    bool silent;
    bool returned;
    bool excused;
    bool passed;  // a later one returned first
    uint64_t hash;
  };
  bool Excuses(uint64_t stamp) const;
  void Classify(const Entry& entry, std::span<const std::byte> payload);
  void CheckOrder(const Entry& returned);
  void Forget();

  std::deque<Entry> entries_;  // in the order of sending
  uint64_t in_flight_ = 0;
  bool impaired_ = false;
  bool recovering_ = false;  // no packet from after losses_until_ns_ has returned
  uint64_t losses_until_ns_ = 0;
  RoundTripCounts counts_;
};

}  // namespace kvox::sim
