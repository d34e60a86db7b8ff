#include "buffer/packet_account.h"

#include <algorithm>
#include <limits>

namespace kvox {
namespace {

using flight::Loss;
using flight::Written;

/// A packet that is read so soon after the one before was there already.
constexpr uint64_t kQueuedWithinNs = 50'000;

template <typename Small>
Small Saturated(uint64_t value) {
  return static_cast<Small>(std::min<uint64_t>(value, std::numeric_limits<Small>::max()));
}

/// Why a packet is lost if a processor's client did this with it.
Loss LossBy(Delivery delivery, Loss ended) {
  switch (delivery) {
    case Delivery::kNone:
    case Delivery::kAccepted:
      return Loss::kNone;
    case Delivery::kRefused:
      return Loss::kClientRefused;
    case Delivery::kLate:
    case Delivery::kBusy:
      return Loss::kClientLate;
    case Delivery::kInterrupted:
      return ended == Loss::kNone ? Loss::kClientLate : ended;
  }
  return Loss::kNone;
}

}  // namespace

void PacketAccount::Read(const StreamFindings& findings, size_t size) {
  if (findings.next == StreamFindings::Next::kPacket) {
    record_ = {};
    record_.failed_inject = flight::kNoInject;
    record_.left_over = Saturated<uint16_t>(findings.excess);
  } else if (findings.Junk()) {
    log_.Junk(findings.misaligned > 0 ? Loss::kAlignment
              : findings.skipped > 0  ? Loss::kNoMagic
                                      : Loss::kHeader,
              static_cast<uint32_t>(size));
  }
}

void PacketAccount::Arrived(const KvoxPacketHeader& header, uint64_t now_ns) {
  record_.stamp = header.stamp;
  record_.number = header.packet_num;
  record_.arrived_ns = now_ns;
  if (now_ns - done_ns_ < kQueuedWithinNs) record_.flags = flight::kQueued;
  processing_ns_ = 0;
  offered_ = false;
  lost_by_processor_ = false;
  done_ns_ = now_ns;
}

void PacketAccount::Judged(const TimingVerdict& verdict) {
  record_.period_ns = Saturated<uint32_t>(verdict.period_ns);
  record_.arrival = verdict.arrival;
  if (verdict.slipped) Lose(Loss::kSlip);
}

void PacketAccount::Processed(const KvoxProcessor& processor, const BlockResult& result,
                              uint64_t took_ns, Loss ended) {
  processing_ns_ += took_ns;
  const bool lost_before = record_.loss != Loss::kNone;
  if (result.status != 0) Lose(Loss::kProcessor);
  Lose(LossBy(result.delivery, ended));
  const bool loses = !lost_before && record_.loss != Loss::kNone;
  if (!loses && (lost_by_processor_ || took_ns <= record_.slowest_ns)) return;
  lost_by_processor_ = loses;
  record_.slowest_ns = Saturated<uint32_t>(took_ns);
  record_.slowest_id = static_cast<uint32_t>(processor.id());
  record_.client_ns = Saturated<uint32_t>(result.client_ns);
}

void PacketAccount::Sent(const InjectPort& port, Loss ended) {
  const Written outcome = port.outcome();
  offered_ = true;
  if (record_.routes < flight::kRoutesWithOutcome) {
    const auto bits = static_cast<unsigned>(outcome) << 2 * record_.routes;
    record_.written |= static_cast<uint16_t>(bits);
  }
  if (outcome == Written::kWhole) return;
  if (record_.failed_inject == flight::kNoInject) record_.failed_inject = port.log().number();
  const bool cut_short = outcome == Written::kFull && ended != Loss::kNone;
  Lose(cut_short ? ended : outcome == Written::kFull ? Loss::kInjectFull : Loss::kInjectGone);
}

void PacketAccount::RouteDone() {
  if (record_.routes < UINT8_MAX) ++record_.routes;
}

void PacketAccount::Dispatched(uint64_t now_ns) {
  const uint64_t took_ns = now_ns - record_.arrived_ns;
  record_.dispatch_ns = Saturated<uint32_t>(took_ns);
  if (offered_) record_.write_ns = Saturated<uint32_t>(took_ns - processing_ns_);
  done_ns_ = now_ns;
}

void PacketAccount::Lose(Loss why) {
  if (record_.loss == Loss::kNone) record_.loss = why;
}

}  // namespace kvox
