#include "sim/round_trip.h"

#include <algorithm>
#include <cstring>

namespace kvox::sim {
namespace {

uint64_t Fingerprint(std::span<const std::byte> payload) {
  uint64_t hash = payload.size();
  for (size_t at = 0; at < payload.size(); at += sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, &payload[at], std::min(sizeof word, payload.size() - at));
    hash = (hash ^ word) * 0x9E3779B97F4A7C15u;
    hash ^= hash >> 32;
  }
  return hash;
}

bool AllZero(std::span<const std::byte> payload) {
  return std::ranges::all_of(payload, [](std::byte byte) { return byte == std::byte{0}; });
}

}  // namespace

void RoundTrip::Sent(const KvoxPacketHeader& header, std::span<const std::byte> payload) {
  Expire(header.stamp);
  if (entries_.size() == kMemory) Forget();
  entries_.push_back(
      {header.stamp, header.packet_num, AllZero(payload), false, Fingerprint(payload)});
  ++in_flight_;
}

void RoundTrip::Returned(const KvoxPacketHeader& header, std::span<const std::byte> payload,
                         uint64_t now_ns) {
  Expire(now_ns);
  const auto entry = std::ranges::find_if(entries_, [&](const Entry& sent) {
    return sent.packet_num == header.packet_num && sent.stamp == header.stamp;
  });
  if (entry == entries_.end() || entry->returned) {
    ++counts_.unknown;
    return;
  }
  entry->returned = true;
  --in_flight_;
  const uint64_t latency = now_ns - entry->stamp;
  const bool first = counts_.exact + counts_.silent + counts_.different == 0;
  counts_.latency_min_ns = first ? latency : std::min(counts_.latency_min_ns, latency);
  counts_.latency_max_ns = std::max(counts_.latency_max_ns, latency);
  counts_.latency_sum_ns += latency;
  if (entry->fingerprint == Fingerprint(payload)) {
    ++counts_.exact;
  } else if (!entry->silent && AllZero(payload)) {
    ++counts_.silent;
  } else {
    ++counts_.different;
  }
}

void RoundTrip::Expire(uint64_t now_ns) {
  while (!entries_.empty() &&
         (entries_.front().returned || entries_.front().stamp + kPatienceNs < now_ns)) {
    Forget();
  }
}

void RoundTrip::Forget() {
  if (!entries_.front().returned) {
    ++counts_.missing;
    --in_flight_;
  }
  entries_.pop_front();
}

}  // namespace kvox::sim
