#include "sim/coprocessor/tap_stream.h"

#include <algorithm>
#include <cstring>

#include "sim/audio/samples.h"

namespace kvox::sim {
namespace {

/// Packets that a stream sends before other streams get a turn.
constexpr int kBatch = 64;

}  // namespace

TapStream::TapStream(Tap& tap, uint8_t tapout, PacketPort& port, const StreamOptions& options,
                     FaultPlan& plan, Journal& journal, uint64_t now_ns)
    : tap_(tap),
      name_(DisplayName(tap.config)),
      tapout_(tapout),
      port_(port),
      timed_(options.speed == 1 || options.keep_rate),
      plan_(plan),
      journal_(journal),
      pacer_(tap.config.format.sample_rate, options.speed) {
  pacer_.Start(now_ns);
}

TapStream::~TapStream() {
  Stop();
}

uint64_t TapStream::Run(uint64_t now_ns) {
  if (!LookForReader(now_ns)) return now_ns + kReaderPollNs;
  const uint32_t length = tap_.block_length;
  const uint64_t skipped = pacer_.BlocksToSkip(now_ns, length);
  pacer_.Advance(skipped * length);
  packet_num_ += static_cast<uint32_t>(skipped);
  tap_.counts.skipped += skipped;
  bool heard = SendQueued(now_ns);
  for (int i = 0; heard && i < kBatch && (early_ || pacer_.NextDue(length) <= now_ns); ++i) {
    QueueOne(now_ns);
    heard = SendQueued(now_ns);
  }
  if (!heard) {
    Stop();
    pacer_.Start(now_ns);
    return now_ns + kReaderPollNs;
  }
  const uint64_t due = pacer_.NextDue(length);
  return queue_.empty() ? due : std::min(due, queue_.front().send_ns);
}

/// Starts and ends the stream as readers come and go. The pacer keeps running in between, to count
/// packets that no process reads.
bool TapStream::LookForReader(uint64_t now_ns) {
  const bool heard = port_.HasReader();
  if (heard && running_) return true;
  if (!heard && running_) {
    Stop();
    pacer_.Start(now_ns);
    return false;
  }
  const uint64_t unheard = pacer_.BlocksDue(now_ns, tap_.block_length);
  pacer_.Advance(unheard * tap_.block_length);
  tap_.counts.unheard += unheard;
  if (!heard) return false;
  running_ = true;
  packet_num_ = 0;
  pacer_.Start(now_ns);
  ++tap_.counts.streams;
  at_start_ = tap_.counts;
  early_ = plan_.GoesEarly(name_, now_ns);
  journal_.Log("{}: stream into tap-out {} begins", tap_.Name(), tapout_);
  return true;
}

/// Makes the packet of the next block and applies faults to it.
void TapStream::QueueOne(uint64_t now_ns) {
  const auto struck = plan_.OnPacket(name_, now_ns);
  OutPacket packet = Build(struck);
  if (!struck.empty()) CorruptPacket(struck, packet);
  if (early_) packet.excused = std::max(packet.excused, 1 + kReaderRecovery);
  pacer_.Advance(tap_.block_length);
  early_ = plan_.GoesEarly(name_, now_ns);
  Schedule(packet, now_ns);
  if (packet.copies == 0) {
    ++tap_.counts.withheld;
  } else if (queue_.size() == kMaxHeld) {
    ++tap_.counts.dropped;
  } else {
    queue_.push_back(std::move(packet));
  }
}

OutPacket TapStream::Build(std::span<const FaultConfig> struck) {
  const KvoxTapFormat& own = tap_.config.format;
  interleaved_.resize(tap_.block_length * FrameSize(own));
  tap_.source->Read(pacer_.frames(), interleaved_);
  OutPacket packet;
  KvoxPacketHeader& header = packet.header;
  header.format = own;
  if (const auto changed = ChangedFormat(struck, own, tap_.block_length)) {
    interleaved_ = Remix(interleaved_, own, *changed);
    header.format = *changed;
    packet.excused = 1 + kReaderRecovery;
  }
  header.packet_num = ++packet_num_;
  header.payload_size = static_cast<uint32_t>(interleaved_.size());
  packet.bytes.resize(kPacketHeaderSize + header.payload_size);
  LayOut(header.format, interleaved_, std::span(packet.bytes).subspan(kPacketHeaderSize));
  if (!timed_) header.format.sample_rate = 0;
  std::memcpy(packet.bytes.data(), &header, sizeof header);
  packet.due_ns = pacer_.NextDue(tap_.block_length);
  return packet;
}

/// Decides when it is sent: never before the one in front of it. Packets that are held up, and
/// those that follow, need not come back.
void TapStream::Schedule(OutPacket& packet, uint64_t now_ns) {
  packet.send_ns = now_ns + packet.delay_ns;
  if (packet.burst > 0 && burst_ == 0) burst_ = packet.burst;
  if (burst_ > 0 && --burst_ > 0) packet.send_ns = FaultPlan::kNever;
  if (burst_ == 0) {
    for (OutPacket& held : queue_) {
      if (held.send_ns == FaultPlan::kNever) held.send_ns = now_ns;
    }
  }
  if (!queue_.empty()) packet.excused = std::max(packet.excused, 1 + kReaderRecovery);
  excused_ = std::max(excused_, packet.excused);
  if (excused_ == 0) return;
  packet.excused = excused_--;
}

/// False when the reader is gone.
bool TapStream::SendQueued(uint64_t now_ns) {
  while (!queue_.empty() && queue_.front().send_ns <= now_ns) {
    OutPacket packet = std::move(queue_.front());
    queue_.pop_front();
    for (uint32_t i = 0; i < packet.copies; ++i) {
      if (!Send(packet, now_ns)) return false;
    }
  }
  return true;
}

bool TapStream::Send(OutPacket& packet, uint64_t now_ns) {
  packet.header.stamp = now_ns;
  if (packet.at + kPacketHeaderSize <= packet.bytes.size()) {
    std::memcpy(&packet.bytes[packet.at + offsetof(KvoxPacketHeader, stamp)], &now_ns,
                sizeof now_ns);
  }
  const PacketPort::Result result = port_.Offer(packet.bytes);
  if (result == PacketPort::Result::kNoReader) {
    ++tap_.counts.unheard;
    return false;
  }
  if (result == PacketPort::Result::kDropped) {
    ++tap_.counts.dropped;
    return true;
  }
  ++tap_.counts.sent;
  const uint64_t late = now_ns > packet.due_ns ? now_ns - packet.due_ns : 0;
  if (packet.excused == 0) tap_.counts.max_late_ns = std::max(tap_.counts.max_late_ns, late);
  if (tap_.inject == kNoBuffer) return true;
  const size_t payload = std::min(packet.at + kPacketHeaderSize, packet.bytes.size());
  tap_.round_trip.Sent(packet.header, std::span(packet.bytes).subspan(payload), packet.excused > 0);
  return true;
}

void TapStream::Stop() {
  if (!running_) return;
  running_ = false;
  tap_.counts.unheard += queue_.size();
  queue_.clear();
  burst_ = excused_ = 0;
  early_ = false;
  journal_.Log("{}: stream into tap-out {} ends: {} packets sent, {} dropped, {} skipped",
               tap_.Name(), tapout_, tap_.counts.sent - at_start_.sent,
               tap_.counts.dropped - at_start_.dropped, tap_.counts.skipped - at_start_.skipped);
}

}  // namespace kvox::sim
