#include "sim/tap_stream.h"

#include <algorithm>
#include <cstring>

#include "sim/samples.h"

namespace kvox::sim {
namespace {

/// Packets that a stream sends before others get their turn.
constexpr int kBatch = 64;

}  // namespace

TapStream::TapStream(Tap& tap, uint8_t tapout, PacketPort& port, double speed, Journal& journal,
                     uint64_t now_ns)
    : tap_(tap),
      tapout_(tapout),
      port_(port),
      timed_(speed == 1),
      journal_(journal),
      pacer_(tap.config.format.sample_rate, speed) {
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
  for (int i = 0; i < kBatch && pacer_.NextDue(length) <= now_ns; ++i) {
    if (SendOne(now_ns) != PacketPort::Result::kNoReader) continue;
    Stop();
    pacer_.Start(now_ns);
    return now_ns + kReaderPollNs;
  }
  return pacer_.NextDue(length);
}

/// Begins and ends the stream as readers come and go. The pacer runs on in between, to count what
/// nobody hears.
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
  at_begin_ = tap_.counts;
  journal_.Say("{}: stream into tap-out {} begins", tap_.Name(), tapout_);
  return true;
}

PacketPort::Result TapStream::SendOne(uint64_t now_ns) {
  const KvoxTapFormat& format = tap_.config.format;
  KvoxPacketHeader header;
  header.stamp = now_ns;
  header.packet_num = ++packet_num_;
  header.payload_size = tap_.block_length * FrameSize(format);
  header.format = format;
  if (!timed_) header.format.sample_rate = 0;

  packet_.resize(kPacketHeaderSize + header.payload_size);
  interleaved_.resize(header.payload_size);
  const auto payload = std::span(packet_).subspan(kPacketHeaderSize);
  tap_.source->Read(pacer_.frames(), interleaved_);
  LayOut(format, interleaved_, payload);
  std::memcpy(packet_.data(), &header, sizeof header);

  const PacketPort::Result result = port_.Offer(packet_);
  if (result == PacketPort::Result::kSent) {
    ++tap_.counts.sent;
    const uint64_t late = now_ns - pacer_.NextDue(tap_.block_length);
    tap_.counts.max_late_ns = std::max(tap_.counts.max_late_ns, late);
    if (tap_.inject != kNoBuffer) tap_.round_trip.Sent(header, payload);
  } else if (result == PacketPort::Result::kDropped) {
    ++tap_.counts.dropped;
  } else {
    ++tap_.counts.unheard;
  }
  pacer_.Advance(tap_.block_length);
  return result;
}

void TapStream::Stop() {
  if (!running_) return;
  running_ = false;
  journal_.Say("{}: stream into tap-out {} ends: {} packets sent, {} dropped, {} skipped",
               tap_.Name(), tapout_, tap_.counts.sent - at_begin_.sent,
               tap_.counts.dropped - at_begin_.dropped, tap_.counts.skipped - at_begin_.skipped);
}

}  // namespace kvox::sim
