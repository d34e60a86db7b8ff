// Bringing the co-processor back to what clients had set up, after it was away.
//
// Nothing is remembered anew while it runs, so the memory stays as clients left it, and every step
// takes what is remembered at that moment, under the lock that commands take: a command that a
// client gives meanwhile is never overwritten by an older state.

#include <algorithm>
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

/// What still misses another buffer waits for that one.
void KvoxService::PlanFor(const KvoxBuffer& added, RestorePlan& plan) {
  const auto number = static_cast<int>(added.index());
  const auto completed = [&](int tapout, int inject) REQUIRES(mutex_) {
    return (added.is_tapout() ? tapout : inject) == number &&
           (tapout == -1 || buffers_.tapouts.contains(tapout)) &&
           (inject == -1 || buffers_.injects.contains(inject));
  };
  for (const auto& [key, state] : taps_) {
    const int tapout = BufferNumber(state.info.tapout_buffer);
    if (completed(tapout, BufferNumber(state.info.inject_buffer))) plan.taps.insert(key);
  }
  for (const auto& [id, ends] : connections_) {
    if (completed(ends.tapout_buffer, ends.inject_buffer)) plan.processors.insert(id);
  }
  for (const auto& [name, state] : buffer_states_) {
    if (state.tapout == added.is_tapout() && state.number == number) plan.buffers.insert(name);
  }
}

void KvoxService::Restore(const RecoveryPacer& pacer, const RestorePlan& plan,
                          Unfinished& unfinished) {
  const auto restore = [&pacer](const auto& items, auto restore_one) {
    for (const auto& item : items) {
      if (pacer.stopping()) return;
      restore_one(item);
    }
  };
  unfinished.everything = false;
  restore(plan.taps, [&](TapKey key) {
    if (RestoreTap(pacer, key)) {
      unfinished.taps.erase(key);
    } else {
      unfinished.taps.insert(key);
    }
  });
  restore(plan.processors, [&](FourCc id) { RestoreProcessor(id); });
  restore(plan.buffers, [&](const std::string& name) { RestoreBuffer(pacer, name, unfinished); });
  MutexLock lock(mutex_);
  updateWakeLock(nullptr);
}

/// False when the co-processor did not take it.
bool KvoxService::RestoreTap(const RecoveryPacer& pacer, TapKey key) {
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
  if (!Succeeded(result) || pacer.stopping()) return false;

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
void KvoxService::RestoreProcessor(FourCc id) {
  MutexLock wiring(wiring_mutex_);
  ConnectionState connection;
  std::shared_ptr<KvoxProcessor> processor;
  {
    MutexLock lock(mutex_);
    processor = GetKvoxProcessor(id);
    const auto found = connections_.find(id);
    if (found != connections_.end()) connection = found->second;
  }
  if (!processor) return;
  LogInfo("Restore processor connection state %s", processor->id_text());
  const bool was_enabled = processor->IsEnabled() || to_enable_again_.contains(id);
  processor->Enable(false);
  CommandResult result;
  ConnectProcessor(id, connection.tapout_buffer, connection.inject_buffer, Recording::kNo, &result);
  if (!Succeeded(result)) {
    if (was_enabled) to_enable_again_.insert(id);
    return;
  }
  if (was_enabled && processor->Enable(true) != 0) {
    to_enable_again_.insert(id);
  } else {
    to_enable_again_.erase(id);
  }
}

void KvoxService::RestoreBuffer(const RecoveryPacer& pacer, const std::string& name,
                                Unfinished& unfinished) {
  std::shared_ptr<KvoxBuffer> buffer;
  {
    MutexLock lock(mutex_);
    const KvoxBufferState* wanted = nullptr;
    buffer = FindWanted(name, wanted);
    if (wanted == nullptr) return;
    if (!buffer) {
      LogError("Error restoring %s buffer %s: missing", wanted->tapout ? "tap-out" : "inject",
               name.c_str());
      return;
    }
  }
  LogInfo("Restore buffer state %s", name.c_str());
  TryOpening(pacer, *buffer, 0, unfinished);
}

void KvoxService::RetryOpenings(const RecoveryPacer& pacer, Unfinished& unfinished) {
  for (const auto& [name, opening] : std::exchange(unfinished.openings, {})) {
    if (pacer.stopping()) return;
    if (pacer.Now() < opening.due) {
      unfinished.openings.emplace(name, opening);
      continue;
    }
    std::shared_ptr<KvoxBuffer> buffer;
    {
      MutexLock lock(mutex_);
      const KvoxBufferState* wanted = nullptr;
      buffer = FindWanted(name, wanted);
    }
    if (buffer) TryOpening(pacer, *buffer, opening.number, unfinished);
  }
  MutexLock lock(mutex_);
  updateWakeLock(nullptr);
}

void KvoxService::TryOpening(const RecoveryPacer& pacer, KvoxBuffer& buffer, unsigned number,
                             Unfinished& unfinished) {
  const KvoxBuffer::Try outcome = buffer.TryEnable(number);
  if (outcome == KvoxBuffer::Try::kOn) SwitchAsRecorded(buffer);
  if (outcome == KvoxBuffer::Try::kAgain) ++number;
  if (outcome == KvoxBuffer::Try::kAgain || outcome == KvoxBuffer::Try::kBusy) {
    unfinished.openings[buffer.name()] = {number, pacer.Now() + KvoxBuffer::kOpenRetryPause};
  }
}

/// The buffer that shall be on under that name, null when its device is away; `state` is what is
/// remembered of it, null when nobody wants it.
std::shared_ptr<KvoxBuffer> KvoxService::FindWanted(const std::string& name,
                                                    const KvoxBufferState*& state) {
  const auto found = buffer_states_.find(name);
  if (found == buffer_states_.end() || !found->second.enabled) return nullptr;
  state = &found->second;
  const BufferMap& buffers = state->tapout ? buffers_.tapouts : buffers_.injects;
  const auto present = buffers.find(state->number);
  return present == buffers.end() ? nullptr : present->second;
}

RecoveryClock::time_point KvoxService::Unfinished::NextOpening() const {
  auto next = RecoveryClock::time_point::max();
  for (const auto& [name, opening] : openings) next = std::min(next, opening.due);
  return next;
}

}  // namespace kvox
