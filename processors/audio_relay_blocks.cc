// The relay's side on the I/O thread. RT throughout.

#include "kvox/common/kvox_packet.h"
#include "kvox/common/log.h"
#include "processors/audio_relay_processor.h"
#include "processors/audio_relay_state.h"
#include "processors/relay_layout.h"

namespace kvox {
namespace {

/// How long all relays of a block may wait for their clients: until half its duration after its
/// arrival.
uint64_t Deadline(const Block& block, uint64_t frames) {
  constexpr uint64_t kNsPerSecond = 1'000'000'000;
  return block.arrived_ns + frames * kNsPerSecond / kRelaySampleRate / 2;
}

}  // namespace

BlockResult AudioRelayProcessor::ProcessBlock(const Block& block, OutputArea* out) {
  const auto* const state = static_cast<const RelayState*>(block.state);
  const bool passes = IsEnabled() && !restarting_.load(std::memory_order_relaxed);
  if (!passes || state == nullptr || !state->stream || block.audio.empty()) return {};
  const MeasuredBlock measured(stats(), block);
  BlockResult result;
  result.status = IsTelephony() ? ProcessBlockForTelephony(block, *state, out, result)
                                : ProcessBlockGeneric(block, *state, out, result);
  return result;
}

int32_t AudioRelayProcessor::ProcessBlockForTelephony(const Block& block, const RelayState& state,
                                                      OutputArea* out, BlockResult& result) {
  constexpr const char* kName = "ProcessBlockForTelephony";
  const RelayStream& stream = *state.stream;
  const KvoxTapFormat& tap = block.format;
  const size_t mono_size = size_t{stream.block_length} * kTelephonySampleSize;
  if (!block.connected || stream.block_size < mono_size) return -1;
  if (tap.sample_rate != kRelaySampleRate || tap.channels < 1 || tap.channels > 2 ||
      tap.bytes_per_sample != kTelephonySampleSize) {
    LogError("Invalid tap format (sample rate %u, ch %u, bytes/sample %u)", tap.sample_rate,
             tap.channels, tap.bytes_per_sample);
    return -1;
  }
  const auto frames =
      static_cast<uint32_t>(block.audio.size() / kTelephonySampleSize / tap.channels);
  if (frames != stream.block_length) {
    LogError("%s %s: Unexpected number of samples (%u != %u, num_ch = %u)", kName, id_text(),
             frames, stream.block_length, tap.channels);
    return -1;
  }
  if (!state.client) return 0;
  auto delivery = Delivery::kBusy;
  if (const auto slot = state.client->Slot(mono_size); !slot.empty()) {
    TakeFirstChannel(block.audio, tap.channels, slot);
    delivery = state.client->Deliver(stream.shape, block.waiter, Deadline(block, frames));
  }
  Note(delivery, block, result);
  // A late client loses what it would have sent for this block, not what it has sent before.
  if (delivery == Delivery::kRefused || out == nullptr) return 0;
  const std::span<const std::byte> sent = state.stream->sent.Take();
  if (sent.empty()) return 0;
  SpreadOverChannels(sent.first(mono_size), tap.channels, {out->Data(), out->size()});
  return 0;
}

int32_t AudioRelayProcessor::ProcessBlockGeneric(const Block& block, const RelayState& state,
                                                 OutputArea* out, BlockResult& result) {
  constexpr const char* kName = "ProcessBlockGeneric";
  const RelayStream& stream = *state.stream;
  const KvoxTapFormat& tap = block.format;
  const unsigned channels = stream.channels();
  if (tap.sample_rate != kRelaySampleRate || tap.channels != channels ||
      tap.bytes_per_sample != stream.bytes_per_sample) {
    LogError("Invalid tap format: raw(%u kHz, ch %u, %u Bps), requested(%u kHz, ch %u, %u Bps)",
             tap.sample_rate / 1000, tap.channels, tap.bytes_per_sample, kRelaySampleRate / 1000,
             channels, stream.bytes_per_sample);
    return -1;
  }
  if (block.audio.size() > stream.block_size) {
    LogError("Audio data size exceed %zu (%u kHz, ch %u, %u Bps), block length %u, %u Bps, ch %u)",
             block.audio.size(), tap.sample_rate / 1000, tap.channels, tap.bytes_per_sample,
             stream.block_length, stream.bytes_per_sample, channels);
    return -1;
  }
  if (state.client) {
    auto delivery = Delivery::kBusy;
    if (const auto slot = state.client->Slot(block.audio.size()); !slot.empty()) {
      ToInterleaved(block.audio, tap, slot);
      const uint32_t frames = FrameCount(tap, static_cast<uint32_t>(block.audio.size()));
      delivery = state.client->Deliver(stream.shape, block.waiter, Deadline(block, frames));
    }
    Note(delivery, block, result);
    if (delivery == Delivery::kRefused) {
      LogError("%s %s: receive_audio_callback_->ReceiveAudio fail", kName, id_text());
    }
  }
  if (out == nullptr) return 0;
  const std::span<const std::byte> sent = state.stream->sent.Take();
  if (sent.empty()) return 0;
  FromInterleaved(sent.first(block.audio.size()), tap, {out->Data(), out->size()});
  if (sent.size() > block.audio.size()) cut_.Count();
  if (const uint32_t blocks = cut_.TakeDue(block.waiter.NowNs())) ReportCut(blocks);
  return 0;
}

/// What the client made of the block.
void AudioRelayProcessor::Note(Delivery delivery, const Block& block, BlockResult& result) {
  const uint64_t now_ns = block.waiter.NowNs();
  result.delivery = delivery;
  if (delivery != Delivery::kBusy) result.client_ns = now_ns - block.begin_ns;
  const bool missed = delivery == Delivery::kLate || delivery == Delivery::kBusy;
  if (missed) missed_.Count();
  if (const uint32_t blocks = missed_.TakeDue(now_ns)) ReportMissed(blocks);
}

void AudioRelayProcessor::ReportMissed(uint32_t blocks) const {
  LogWarning("%s: the client was too slow for %u block%s", id_text(), blocks,
             blocks == 1 ? "" : "s");
}

void AudioRelayProcessor::ReportCut(uint32_t blocks) const {
  LogWarning(
      "%s: the end of %u sent blocks is lost, the tap's blocks are shorter; set its block "
      "length",
      id_text(), blocks);
}

}  // namespace kvox
