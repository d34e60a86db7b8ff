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
  uint64_t exact = 0;           // came back bit for bit
  uint64_t silent = 0;          // came back as zeros only
  uint64_t different = 0;       // came back with other audio
  uint64_t unknown = 0;         // was not sent, or came back before, or after it was given up
  uint64_t missing = 0;         // did not come back in time
  uint64_t spoiled = 0;         // was not to be expected back whole, and did not come back exact
  uint64_t exact_in_row = 0;    // of the last ones; begins anew with every packet that is not
  uint64_t back = 0;            // all that came back but the unknown
  uint64_t latency_min_ns = 0;  // of these
  uint64_t latency_max_ns = 0;
  uint64_t latency_sum_ns = 0;
};

class RoundTrip {
 public:
  /// A packet is missing when it is not back after this time, or when this many followed it.
  static constexpr uint64_t kPatienceNs = 2'000'000'000;
  static constexpr size_t kMemory = 4096;

  /// What follows the last loss on the way back counts as recovered at the latest after this time.
  static constexpr uint64_t kRecoveryNs = 10'000'000'000;

  /// A packet that is `excused` need not come back: a fault has struck it.
  void Sent(const KvoxPacketHeader& header, std::span<const std::byte> payload,
            bool excused = false);
  void Returned(const KvoxPacketHeader& header, std::span<const std::byte> payload,
                uint64_t now_ns);
  /// Something takes packets away until `until_ns`. Excused is what is on its way and what is sent
  /// until the first packet from after that time is back.
  void ExcuseLosses(uint64_t until_ns);
  /// The same without an end (true), and that end (false).
  void SetImpaired(bool impaired, uint64_t now_ns);
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
    bool excused;
    bool passed;  // a later one was back first
    uint64_t fingerprint;
  };
  bool Excuses(uint64_t stamp) const;
  void Judge(const Entry& entry, std::span<const std::byte> payload);
  void NoteRow(const Entry& returned);
  void Forget();

  std::deque<Entry> entries_;  // in the order of sending
  uint64_t in_flight_ = 0;
  bool impaired_ = false;
  bool recovering_ = false;  // nothing from after the disturbance is back
  uint64_t disturbed_until_ns_ = 0;
  RoundTripCounts counts_;
};

}  // namespace kvox::sim
