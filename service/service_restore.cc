// Bringing the co-processor back to what clients had set up, after it was away.
//
// Nothing is remembered anew while it runs, so the memory stays as clients left it, and every step
// takes what is remembered at that moment, under the lock that commands take: a command that a
// client gives meanwhile is never overwritten by an older state.

#include <utility>

#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

/// Buffer ids are remembered in 8 bits.
int BufferNumber(uint8_t id) {
  return id == kNoBuffer ? -1 : id;
}

bool Succeeded(const CommandResult& result) {
  return result.status == CommandStatus::OK;
}

}  // namespace

void KvoxService::PlanEverything(RestorePlan& plan) {
  MutexLock lock(mutex_);
  for (const auto& [key, state] : taps_) plan.taps.insert(key);
  for (const auto& [id, processor] : processors_) plan.processors.insert(id);
  for (const auto& [name, state] : buffer_states_) plan.buffers.insert(name);
}

void KvoxService::PlanFor(const KvoxBuffer& buffer, RestorePlan& plan) {
  const auto number = static_cast<int>(buffer.index());
  for (const auto& [key, state] : taps_) {
    const uint8_t id = buffer.is_tapout() ? state.info.tapout_buffer : state.info.inject_buffer;
    if (BufferNumber(id) == number) plan.taps.insert(key);
  }
  for (const auto& [id, connection] : connections_) {
    const int end = buffer.is_tapout() ? connection.tapout_buffer : connection.inject_buffer;
    if (end == number) plan.processors.insert(id);
  }
  plan.buffers.insert(buffer.name());
}

void KvoxService::Restore(const RecoveryPacer& pacer, RestorePlan& plan) {
  const auto restore = [&pacer](auto& items, auto restore_one) {
    for (auto item = items.begin(); item != items.end() && !pacer.stopping();) {
      item = restore_one(*item) ? items.erase(item) : std::next(item);
    }
  };
  restore(plan.taps, [this](TapKey key) { return RestoreTap(key); });
  restore(plan.processors, [this](FourCc id) { return RestoreProcessor(id); });
  restore(plan.buffers, [this](const std::string& name) { return RestoreBuffer(name); });
  MutexLock lock(mutex_);
  updateWakeLock(nullptr);
}

/// True when nothing is left to do for this tap point.
bool KvoxService::RestoreTap(TapKey key) {
  KvoxTapPointState state;
  const auto still_known = [&]() REQUIRES(mutex_) {
    const auto found = taps_.find(key);
    if (found != taps_.end()) state = found->second;
    return found != taps_.end();
  };
  CommandResult result;
  Binding binding;
  {
    MutexLock lock(mutex_);
    if (!still_known()) return true;
    LogInfo("Restore tap point state %s", TapName(state.info).c_str());
    const int tapout = BufferNumber(state.info.tapout_buffer);
    const int inject = BufferNumber(state.info.inject_buffer);
    BeginCommand(BindingRequest(state.Arguments(), tapout, inject), &result);
    binding = SendBinding(state.Arguments(), tapout, inject, Recording::kNo, &result);
  }
  FinishBinding(std::move(binding), &result);
  if (!Succeeded(result)) return false;

  MutexLock lock(mutex_);
  if (!still_known()) return true;
  const TapArguments tap = state.Arguments();
  if (const uint32_t frames = state.info.block_length; static_cast<int32_t>(frames) >= 0) {
    BeginCommand(BlockLengthRequest(tap, frames), &result);
    if (!SendBlockLength(tap, frames, &result)) return false;
  }
  if (state.jitter_buffer >= 0) {
    const auto size = static_cast<uint32_t>(state.jitter_buffer);
    BeginCommand(JitterBufferRequest(tap, size), &result);
    if (!SendJitterBuffer(tap, size, &result)) return false;
  }
  const bool enable = state.info.enabled != 0;
  BeginCommand(TapEnableRequest(tap, enable), &result);
  return SendTapEnable(tap, enable, &result);
}

/// A processor is silent while it is tied. One whose buffers are not all back stays disabled until
/// they are, unless a client switches it meanwhile.
bool KvoxService::RestoreProcessor(FourCc id) {
  MutexLock wiring(wiring_mutex_);
  ConnectionState connection;
  std::shared_ptr<KvoxProcessor> processor;
  {
    MutexLock lock(mutex_);
    processor = GetKvoxProcessor(id);
    const auto found = connections_.find(id);
    if (found != connections_.end()) connection = found->second;
  }
  if (!processor) return true;
  LogInfo("Restore processor connection state %s", processor->id_text());
  const bool was_enabled = processor->IsEnabled() || to_enable_again_.contains(id);
  processor->Enable(false);
  CommandResult result;
  ConnectProcessor(id, connection.tapout_buffer, connection.inject_buffer, Recording::kNo, &result);
  if (!Succeeded(result)) {
    if (was_enabled) to_enable_again_.insert(id);
    return false;
  }
  to_enable_again_.erase(id);
  processor->Enable(was_enabled);
  return true;
}

bool KvoxService::RestoreBuffer(const std::string& name) {
  KvoxBufferState state{};
  std::shared_ptr<KvoxBuffer> buffer;
  const auto wanted = [&]() REQUIRES(mutex_) {
    const auto found = buffer_states_.find(name);
    if (found != buffer_states_.end()) state = found->second;
    return found != buffer_states_.end() && state.enabled;
  };
  {
    MutexLock lock(mutex_);
    if (!wanted()) return true;
    const BufferMap& buffers = state.tapout ? buffers_.tapouts : buffers_.injects;
    const auto found = buffers.find(state.number);
    if (found != buffers.end()) buffer = found->second;
  }
  if (!buffer) {
    LogError("Error restoring %s buffer %s: missing", state.tapout ? "tap-out" : "inject",
             name.c_str());
    return false;
  }
  LogInfo("Restore buffer state %s", name.c_str());
  const int32_t status = buffer->Enable(true);
  bool still_wanted;
  {
    MutexLock lock(mutex_);
    still_wanted = wanted();
  }
  if (!still_wanted) buffer->Enable(false);  // a client has stopped it while it was opening
  return status == 0 || !still_wanted;
}

}  // namespace kvox
