// The part of a recovery that restores what clients had set up.

#include <algorithm>
#include <utility>

#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"
#include "kvox/common/log.h"
#include "service/recovery.h"

namespace kvox {
namespace {

constexpr unsigned kTapRetries = 5;
constexpr auto kTapRetryPause = std::chrono::seconds(1);

}  // namespace

/// One that the co-processor refuses is not tried again; it may reply to another try.
void Recovery::Unfinished::Retry::TryLater(RecoveryClock::TimePoint now) {
  due = ++number <= kTapRetries ? now + kTapRetryPause : RecoveryClock::TimePoint::max();
}

RecoveryClock::TimePoint Recovery::Unfinished::NextRetry() const {
  auto next = RecoveryClock::TimePoint::max();
  for (const auto& [key, retry] : taps) next = std::min(next, retry.due);
  for (const auto& [name, retry] : openings) next = std::min(next, retry.due);
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
  const uint64_t begin_ns = GetTimestampNs();
  RestoreTaps(clock, plan.taps, unfinished);
  restore(plan.processors, [&](FourCc id) { links_.wiring.Restore(id); });
  restore(plan.buffers, [&](const std::string& name) { RestoreBuffer(clock, name, unfinished); });
  links_.io.UpdateWakeLock();
  links_.buffers.flight.Record(
      {.kind = flight::EventKind::kRecovery,
       .subject = "restored",
       .text = FormatText<96>("%zu taps, %zu processors, %zu buffers; unfinished: %zu taps, %zu "
                              "buffers",
                              plan.taps.size(), plan.processors.size(), plan.buffers.size(),
                              unfinished.taps.size(), unfinished.openings.size()),
       .duration_ns = GetTimestampNs() - begin_ns});
}

/// After the first one without a reply, the others wait for their retry: a mute co-processor, half
/// a second each, would delay processors and buffers. Bindings of clients that come in between are
/// the newer ones, so what has to be bound once more is looked up after each round.
void Recovery::RestoreTaps(const RecoveryClock& clock, const std::set<TapKey>& keys,
                           Unfinished& unfinished) {
  const auto stopping = [&clock] { return clock.stopping(); };
  bool mute = false;
  const auto restored = [&](TapKey key, auto command) {
    if (mute) {
      unfinished.taps[key].due = clock.Now();
      return false;
    }
    const TapPoints::Restored outcome = command();
    mute = outcome == TapPoints::Restored::kNoReply;
    if (mute) unfinished.taps[key].TryLater(clock.Now());
    return !mute;
  };
  std::set<TapKey> bound;
  for (const TapKey key : keys) {
    if (clock.stopping()) return;
    if (!restored(key, [&] { return links_.taps.Restore(key, stopping); })) continue;
    unfinished.taps.erase(key);
    bound.insert(key);
  }
  for (bool changed = true; changed;) {
    const SavedTables saved = links_.saved.Copy();
    std::set<TapKey> once_more;
    for (const TapKey key : BoundOnceMore(saved, bound)) {
      if (clock.stopping()) return;
      if (restored(key, [&] { return links_.taps.RestoreBinding(key); })) once_more.insert(key);
    }
    changed = !once_more.empty() && links_.saved.Copy().bound != saved.bound;
    bound = std::move(once_more);
  }
}

/// Those that were tried least go first: a silent one that comes first must not keep the others
/// waiting.
void Recovery::RetryTaps(const RecoveryClock& clock, Unfinished& unfinished) {
  const auto is_due = [&](const auto& entry) { return clock.Now() >= entry.second.due; };
  unsigned least = kTapRetries + 1;
  for (const auto& entry : unfinished.taps) {
    if (is_due(entry)) least = std::min(least, entry.second.number);
  }
  RestorePlan plan;
  for (const auto& entry : unfinished.taps) {
    if (is_due(entry) && entry.second.number == least) plan.taps.insert(entry.first);
  }
  if (!plan.taps.empty()) Restore(clock, plan, unfinished);
}

void Recovery::RestoreBuffer(const RecoveryClock& clock, const std::string& name,
                             Unfinished& unfinished) {
  const auto running = links_.saved.FindRunning(name);
  if (!running) return;
  const BufferPtr buffer = links_.inventory.Find(running->tapout, running->number);
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
    const BufferPtr buffer =
        running ? links_.inventory.Find(running->tapout, running->number) : nullptr;
    if (buffer) TryOpening(clock, *buffer, opening.number, unfinished);
  }
  links_.io.UpdateWakeLock();
}

void Recovery::TryOpening(const RecoveryClock& clock, KvoxBuffer& buffer, unsigned number,
                          Unfinished& unfinished) {
  const auto still_wanted = [&] { return links_.saved.IsRunning(buffer); };
  const KvoxBuffer::Try outcome = buffer.TryEnable(number, still_wanted);
  if (outcome == KvoxBuffer::Try::kOn) links_.io.SwitchAsSaved(buffer);
  if (outcome == KvoxBuffer::Try::kAgain) ++number;
  if (outcome == KvoxBuffer::Try::kAgain || outcome == KvoxBuffer::Try::kBusy) {
    unfinished.openings[buffer.name()] = {number, clock.Now() + KvoxBuffer::kOpenRetryPause};
  }
}

}  // namespace kvox
