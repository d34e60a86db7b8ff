#include "tests/campaign/model.h"

namespace kvox::campaign {
namespace {

/// The daemon forgets a tap point that is off and bound to nothing, and what was set of it.
void ForgetIfIdle(TapModel& tap) {
  if (!tap.enabled && tap.tapout == kNone && tap.inject == kNone) tap = {};
}

}  // namespace

void Model::NewProcessor(FourCc id, FourCc type) {
  processors_[id] = {.type = type};
}

void Model::DeleteProcessor(FourCc id) {
  processors_.erase(id);
}

void Model::ProcessorEnable(FourCc id, bool enable) {
  processors_[id].enabled = enable;
}

/// An inject buffer has one writer: whoever had it before is left without output.
void Model::Connect(FourCc id, int tapout, int inject) {
  for (auto& [other, processor] : processors_) {
    if (other != id && inject != kNone && processor.inject == inject) processor.inject = kNone;
  }
  processors_[id].tapout = tapout;
  processors_[id].inject = inject;
}

void Model::ConnectTap(const TapId& tap, int tapout, int inject) {
  taps_[tap].tapout = tapout;
  taps_[tap].inject = inject;
  ForgetIfIdle(taps_[tap]);
}

void Model::TapEnable(const TapId& tap, bool enable) {
  taps_[tap].enabled = enable;
  ForgetIfIdle(taps_[tap]);
}

void Model::TapSetBlockLength(const TapId& tap, uint32_t frames) {
  taps_[tap].block_length = frames;
}

void Model::TapSetJitterBuffer(const TapId& tap, uint32_t size) {
  taps_[tap].jitter_buffer = size;
}

void Model::StartIo(int tapout) {
  tapouts_.insert(tapout);
  for (const auto& [id, processor] : processors_) {
    if (processor.tapout == tapout && processor.inject != kNone) injects_.insert(processor.inject);
  }
}

void Model::StopIo(int tapout) {
  tapouts_.erase(tapout);
  for (const auto& [id, processor] : processors_) {
    if (processor.tapout == tapout) injects_.erase(processor.inject);
  }
}

bool Model::Flows(const TapId& tap, FourCc processor) const {
  const auto t = taps_.find(tap);
  const auto p = processors_.find(processor);
  if (t == taps_.end() || p == processors_.end()) return false;
  return t->second.enabled && p->second.enabled && t->second.tapout != kNone &&
         t->second.inject != kNone && t->second.tapout == p->second.tapout &&
         t->second.inject == p->second.inject && tapouts_.contains(t->second.tapout) &&
         injects_.contains(t->second.inject);
}

}  // namespace kvox::campaign
