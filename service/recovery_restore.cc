// The part of a recovery that restores what clients had set up.

#include <algorithm>
#include <utility>

#include "kvox/common/log.h"
#include "service/recovery.h"

namespace kvox {

RecoveryClock::TimePoint Recovery::Unfinished::NextOpening() const {
  auto next = RecoveryClock::TimePoint::max();
  for (const auto& [name, opening] : openings) next = std::min(next, opening.due);
  return next;
}

void Recovery::RestoreAll(const RecoveryClock& clock, Unfinished& unfinished) {
  RestorePlan plan;
  PlanEverything(links_.saved.Copy(), links_.inventory, plan);
  Restore(clock, plan, unfinished);
}

void Recovery::Restore(const RecoveryClock& clock, const RestorePlan& plan,
                       Unfinished& unfinished) {
  const auto restore = [&clock](const auto& items, auto restore_one) {
    for (const auto& item : items) {
      if (clock.stopping()) return;
      restore_one(item);
    }
  };
  unfinished.everything = false;
  restore(plan.taps, [&](TapKey key) {
    if (links_.taps.Restore(key, [&clock] { return clock.stopping(); })) {
      unfinished.taps.erase(key);
    } else {
      unfinished.taps.insert(key);
    }
  });
  restore(plan.processors, [&](FourCc id) { links_.wiring.Restore(id); });
  restore(plan.buffers, [&](const std::string& name) { RestoreBuffer(clock, name, unfinished); });
  links_.io.UpdateWakeLock();
}

BufferPtr Recovery::Present(const RunningBuffer& running) const {
  return running.tapout ? links_.inventory.FindTapOut(running.number)
                        : links_.inventory.FindInject(running.number);
}

void Recovery::RestoreBuffer(const RecoveryClock& clock, const std::string& name,
                             Unfinished& unfinished) {
  const auto running = links_.saved.FindRunning(name);
  if (!running) return;
  const BufferPtr buffer = Present(*running);
  if (!buffer) {
    LogError("Error restoring %s buffer %s: missing", running->tapout ? "tap-out" : "inject",
             name.c_str());
    return;
  }
  LogInfo("Restore buffer state %s", name.c_str());
  TryOpening(clock, *buffer, 0, unfinished);
}

void Recovery::RetryOpenings(const RecoveryClock& clock, Unfinished& unfinished) {
  for (const auto& [name, opening] : std::exchange(unfinished.openings, {})) {
    if (clock.stopping()) return;
    if (clock.Now() < opening.due) {
      unfinished.openings.emplace(name, opening);
      continue;
    }
    const auto running = links_.saved.FindRunning(name);
    const BufferPtr buffer = running ? Present(*running) : nullptr;
    if (buffer) TryOpening(clock, *buffer, opening.number, unfinished);
  }
  links_.io.UpdateWakeLock();
}

void Recovery::TryOpening(const RecoveryClock& clock, KvoxBuffer& buffer, unsigned number,
                          Unfinished& unfinished) {
  const KvoxBuffer::Try outcome = buffer.TryEnable(number, nullptr);
  if (outcome == KvoxBuffer::Try::kOn) links_.io.SwitchAsSaved(buffer);
  if (outcome == KvoxBuffer::Try::kAgain) ++number;
  if (outcome == KvoxBuffer::Try::kAgain || outcome == KvoxBuffer::Try::kBusy) {
    unfinished.openings[buffer.name()] = {number, clock.Now() + KvoxBuffer::kOpenRetryPause};
  }
}

}  // namespace kvox
