#include "tests/campaign/expected_graph.h"

#include <algorithm>

#include "kvox/common/command_tables.h"

namespace kvox::campaign {
namespace {

/// The daemon forgets a tap point that is off and bound to nothing, with all its settings.
void ForgetIfIdle(ExpectedTap& tap) {
  if (!tap.enabled && tap.tapout == kNone && tap.inject == kNone) tap = {};
}

template <typename Map>
typename Map::mapped_type ValueOr(const Map& map, const typename Map::key_type& key) {
  const auto found = map.find(key);
  return found == map.end() ? typename Map::mapped_type() : found->second;
}

}  // namespace

void ExpectedGraph::NewProcessor(FourCc id, FourCc type) {
  processors_[id] = {.type = type};
}

void ExpectedGraph::DeleteProcessor(FourCc id) {
  processors_.erase(id);
}

void ExpectedGraph::ProcessorEnable(FourCc id, bool enable) {
  processors_[id].enabled = enable;
}

/// An inject buffer has one writer: its writer before is left without output.
void ExpectedGraph::Connect(FourCc id, int tapout, int inject) {
  for (auto& [other, processor] : processors_) {
    if (other != id && inject != kNone && processor.inject == inject) processor.inject = kNone;
  }
  processors_[id].tapout = tapout;
  processors_[id].inject = inject;
}

void ExpectedGraph::ConnectTap(const TapId& tap, int tapout, int inject) {
  taps_[tap].tapout = tapout;
  taps_[tap].inject = inject;
  std::erase(bound_, tap);
  bound_.push_back(tap);
  ForgetIfIdle(taps_[tap]);
}

void ExpectedGraph::TapEnable(const TapId& tap, bool enable) {
  taps_[tap].enabled = enable;
  ForgetIfIdle(taps_[tap]);
}

void ExpectedGraph::TapSetBlockLength(const TapId& tap, uint32_t frames) {
  taps_[tap].block_length = frames;
}

void ExpectedGraph::TapSetJitterBuffer(const TapId& tap, uint32_t size) {
  taps_[tap].jitter_buffer = size;
}

void ExpectedGraph::StartIo(int tapout) {
  tapouts_.insert(tapout);
  for (const auto& [id, processor] : processors_) {
    if (processor.tapout == tapout && processor.inject != kNone) injects_.insert(processor.inject);
  }
}

void ExpectedGraph::StopIo(int tapout) {
  tapouts_.erase(tapout);
  for (const auto& [id, processor] : processors_) {
    if (processor.tapout == tapout) injects_.erase(processor.inject);
  }
}

void ExpectedGraph::EnableUseCase(UseCase use_case, bool enable) {
  const bool telephony = use_case == UseCase::AREL_TELE;
  for (const Stream& stream : Streams()) {
    if (stream.use_case != use_case) continue;
    const TapId tap = stream.Id();
    if (enable) {
      NewProcessor(stream.processor, stream.type);
      Connect(stream.processor, stream.buffer, stream.buffer);
      ProcessorEnable(stream.processor, true);
      ConnectTap(tap, stream.buffer, stream.buffer);
      if (telephony) TapSetBlockLength(tap, kDefaultBlockLength);
      TapEnable(tap, true);
      StartIo(stream.buffer);
    } else {
      TapEnable(tap, false);
      if (telephony) ConnectTap(tap, kNone, kNone);
      StopIo(stream.buffer);
      DeleteProcessor(stream.processor);
    }
  }
}

ExpectedProcessor ExpectedGraph::ProcessorOf(const Stream& stream) const {
  return ValueOr(processors_, stream.processor);
}

ExpectedTap ExpectedGraph::TapOf(const Stream& stream) const {
  return ValueOr(taps_, stream.Id());
}

std::optional<TapId> ExpectedGraph::SourceOf(int tapout) const {
  if (!tapouts_.contains(tapout)) return std::nullopt;
  const auto source = std::find_if(bound_.rbegin(), bound_.rend(), [&](const TapId& id) {
    return taps_.at(id).enabled && taps_.at(id).tapout == tapout;
  });
  return source == bound_.rend() ? std::nullopt : std::optional(*source);
}

bool ExpectedGraph::Flows(const Stream& stream) const {
  const ExpectedTap tap = TapOf(stream);
  const ExpectedProcessor processor = ProcessorOf(stream);
  return SourceOf(tap.tapout) == stream.Id() && processor.enabled && tap.inject != kNone &&
         tap.tapout == processor.tapout && tap.inject == processor.inject &&
         injects_.contains(tap.inject);
}

}  // namespace kvox::campaign
