#include "kvox/flight/stream_log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace kvox::flight {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

/// A longer jump is a stream that begins anew rather than a loss: three hours of 10 ms packets.
constexpr uint32_t kMostMissing = 1u << 20;

/// Only one thread counts, so load and store suffice.
void Count(Word& counter, uint64_t more = 1) {
  counter.store(counter.load(kRelaxed) + more, kRelaxed);
}

void CountIn(Histogram& histogram, uint64_t value) {
  Count(histogram.counts[BucketOf(value)]);
  Count(histogram.sum, value);
}

}  // namespace

void InjectLog::Count(Written outcome) {
  if (slot_ == nullptr || outcome == Written::kNothing) return;
  Word& counter = outcome == Written::kWhole  ? slot_->written
                  : outcome == Written::kFull ? slot_->full
                                              : slot_->gone;
  counter.fetch_add(1, kRelaxed);  // a reconnected buffer may have two writers for a moment
}

void StreamLog::Begin() {
  if (slot_ != nullptr) slot_->thread.store(static_cast<uint64_t>(syscall(SYS_gettid)), kRelaxed);
}

void StreamLog::End() {
  if (slot_ != nullptr) slot_->thread.store(0, kRelaxed);
}

void StreamLog::Junk(Loss why, uint32_t bytes) {
  if (slot_ == nullptr) return;
  if (pending_ == Loss::kNone) pending_ = why;
  Count(slot_->junk_bytes, bytes);
}

void StreamLog::Add(PacketRecord record) {
  if (slot_ == nullptr) return;
  if (FollowNumbers(record)) {
    Count(record.loss == Loss::kNone ? slot_->dispatched
                                     : slot_->lost[static_cast<size_t>(record.loss)]);
    FollowArrivals(record);
  } else {
    Count(slot_->repeated);
  }
  if (record.routes > 0) CountIn(slot_->processing, record.slowest_ns);
  if (record.written != 0) CountIn(slot_->writing, record.write_ns);
  if (record.client_ns != 0) CountIn(slot_->client, record.client_ns);

  const uint64_t sequence = slot_->packets.load(kRelaxed);
  const auto words = Sealed(record, sequence);
  auto& place = slot_->records[sequence % kPackets];
  for (size_t i = 0; i < words.size(); ++i) place[i].store(words[i], kRelaxed);
  slot_->packets.store(sequence + 1, kRelaxed);
  // What is missing next goes to the same account.
  if (record.left_over > 0) pending_ = Loss::kExcess;
  if (record.loss == Loss::kSlip) pending_ = Loss::kSlip;
}

/// False when the packet has come before. A number that falls back, or jumps by hours, may be a
/// single packet that is repeated or wrong; the next one tells.
bool StreamLog::FollowNumbers(PacketRecord& record) {
  const uint32_t ahead = record.number - number_ - 1;
  const bool apart = any_ && ahead > kMostMissing;
  const bool continues_apart = apart && apart_ && record.number == apart_number_ + 1;
  gapless_ = (any_ && ahead == 0) || continues_apart;
  apart_ = apart && !continues_apart;
  apart_number_ = record.number;
  if (apart_) {
    record.flags |= kRepeated;
    return false;
  }
  record.missing_because = std::exchange(pending_, Loss::kNone);
  if (continues_apart || !any_) {
    record.flags |= kFirst;
    if (any_) Count(slot_->renumbered);
  } else if (ahead > 0) {
    record.missing = static_cast<uint16_t>(std::min<uint32_t>(ahead, UINT16_MAX));
    if (record.missing_because == Loss::kNone) record.missing_because = Loss::kJump;
    Count(slot_->lost[static_cast<size_t>(record.missing_because)], ahead);
  }
  any_ = true;
  number_ = record.number;
  return true;
}

void StreamLog::FollowArrivals(const PacketRecord& record) {
  if (gapless_ && record.period_ns != 0) {
    const uint64_t interval = record.arrived_ns - arrived_ns_;
    const uint64_t period = record.period_ns;
    CountIn(slot_->arrival_error, interval > period ? interval - period : period - interval);
  }
  arrived_ns_ = record.arrived_ns;
  if (record.arrival == Arrival::kEarly) Count(slot_->early);
  if (record.arrival == Arrival::kLate) Count(slot_->late);
}

}  // namespace kvox::flight
