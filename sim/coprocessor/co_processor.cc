#include "sim/coprocessor/co_processor.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace kvox::sim {

std::string Tap::Name() const {
  return fmt::format("{} (core {})", DisplayName(config), config.core);
}

void Tap::Receive(const KvoxPacketHeader& header, std::span<const std::byte> payload,
                  uint64_t now_ns) {
  ++counts.received;
  if (tapout != kNoBuffer) round_trip.Returned(header, payload, now_ns);
  source->Returned(payload);
  if (sink == nullptr) return;
  KvoxTapFormat format = header.format;
  if (format.sample_rate == 0) format.sample_rate = config.format.sample_rate;  // untimed packets
  if (!sink->Write(format, payload)) ++counts.sink_failed;
}

CoProcessor::CoProcessor(Scenario scenario) : scenario_(std::move(scenario)) {
  for (const TapConfig& config : scenario_.taps) {
    Tap& tap = taps_.emplace_back();
    tap.config = config;
    tap.block_length = config.block_length;
    std::string error;
    tap.source = MakeSource(config, error);
    if (error.empty() && config.sink.kind != SinkKind::kNone) {
      tap.sink = MakeWavSink(config.sink, error);
    }
    if (!error.empty()) throw std::invalid_argument(error);
  }
}

void CoProcessor::Reset() {
  for (Tap& tap : taps_) {
    tap.enabled = false;
    tap.block_length = tap.config.block_length;
    tap.jitter_buffer = 0;
    tap.tapout = tap.inject = kNoBuffer;
  }
}

Tap* CoProcessor::Find(const TapAddress& address) {
  const auto found = std::ranges::find_if(taps_, [&](const Tap& tap) {
    return tap.config.name == address.tap && tap.config.index == address.index &&
           tap.config.core == address.core;
  });
  return found == taps_.end() ? nullptr : &*found;
}

/// Of the taps that match the one that was enabled or bound last, enabled ones first.
template <typename Matches>
Tap* CoProcessor::Latest(Matches matches) {
  Tap* latest = nullptr;
  for (Tap& tap : taps_) {
    if (!matches(tap)) continue;
    if (latest == nullptr ||
        std::tie(tap.enabled, tap.changed) > std::tie(latest->enabled, latest->changed)) {
      latest = &tap;
    }
  }
  return latest;
}

Tap* CoProcessor::StreamingInto(uint8_t tapout) {
  return Latest([&](const Tap& tap) { return tap.enabled && tap.tapout == tapout; });
}

Tap* CoProcessor::ReceivingFrom(uint8_t inject) {
  return Latest([&](const Tap& tap) { return tap.inject == inject; });
}

}  // namespace kvox::sim
