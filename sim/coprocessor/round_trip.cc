#include "sim/coprocessor/round_trip.h"

#include <algorithm>
#include <cstring>

namespace kvox::sim {
namespace {

uint64_t Hash(std::span<const std::byte> payload) {
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

void RoundTrip::Sent(const KvoxPacketHeader& header, std::span<const std::byte> payload,
                     bool excused) {
  Expire(header.stamp);
  if (entries_.size() == kMaxEntries) Forget();
  entries_.push_back({.stamp = header.stamp,
                      .packet_num = header.packet_num,
                      .silent = AllZero(payload),
                      .returned = false,
                      .excused = excused || Excuses(header.stamp),
                      .passed = false,
                      .hash = Hash(payload)});
  ++in_flight_;
}

bool RoundTrip::Excuses(uint64_t stamp) const {
  const bool recovers = recovering_ && stamp < losses_until_ns_ + kRecoveryNs;
  return impaired_ || stamp < losses_until_ns_ || recovers;
}

void RoundTrip::Returned(const KvoxPacketHeader& header, std::span<const std::byte> payload,
                         uint64_t now_ns) {
  Expire(now_ns);
  const auto entry = std::ranges::find_if(entries_, [&](const Entry& sent) {
    return sent.packet_num == header.packet_num && sent.stamp == header.stamp && !sent.returned;
  });
  if (entry == entries_.end()) {
    ++counts_.unknown;
    counts_.exact_in_row = 0;
    return;
  }
  entry->returned = true;
  --in_flight_;
  if (!impaired_ && entry->stamp >= losses_until_ns_) recovering_ = false;
  const uint64_t latency = now_ns - entry->stamp;
  const bool first = counts_.back == 0;
  counts_.latency_min_ns = first ? latency : std::min(counts_.latency_min_ns, latency);
  counts_.latency_max_ns = std::max(counts_.latency_max_ns, latency);
  counts_.latency_sum_ns += latency;
  ++counts_.back;
  CheckOrder(*entry);
  Classify(*entry, payload);
}

void RoundTrip::Classify(const Entry& entry, std::span<const std::byte> payload) {
  if (entry.hash == Hash(payload)) {
    ++counts_.exact;
    ++counts_.exact_in_row;
    return;
  }
  counts_.exact_in_row = 0;
  if (entry.excused) {
    ++counts_.spoiled;
  } else if (!entry.silent && AllZero(payload)) {
    ++counts_.silent;
  } else {
    ++counts_.different;
  }
}

/// Packets return in the order of sending: an earlier one that has not returned breaks the row.
void RoundTrip::CheckOrder(const Entry& returned) {
  for (Entry& entry : entries_) {
    if (&entry == &returned) return;
    if (entry.returned || entry.passed) continue;
    entry.passed = true;
    counts_.exact_in_row = 0;
  }
}

void RoundTrip::ExcuseLosses(uint64_t until_ns) {
  recovering_ = true;
  losses_until_ns_ = std::max(losses_until_ns_, until_ns);
  for (Entry& entry : entries_) entry.excused = true;
}

void RoundTrip::SetImpaired(bool impaired, uint64_t now_ns) {
  if (impaired == impaired_) return;
  impaired_ = impaired;
  ExcuseLosses(now_ns);
}

void RoundTrip::Expire(uint64_t now_ns) {
  const auto overdue = [&](const Entry& entry) {
    if (entry.excused && impaired_) return false;
    const uint64_t from = std::max(entry.stamp, entry.excused ? losses_until_ns_ : 0);
    return from + kTimeoutNs < now_ns;
  };
  while (!entries_.empty() && (entries_.front().returned || overdue(entries_.front()))) Forget();
}

void RoundTrip::Forget() {
  const Entry& entry = entries_.front();
  if (!entry.returned) {
    ++(entry.excused ? counts_.spoiled : counts_.missing);
    if (!entry.passed) counts_.exact_in_row = 0;
    --in_flight_;
  }
  entries_.pop_front();
}

}  // namespace kvox::sim
