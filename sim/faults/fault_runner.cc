#include "sim/faults/fault_runner.h"

#include <algorithm>
#include <utility>

#include "kvox/common/kvox_utils.h"

namespace kvox::sim {
namespace {

/// Whether every hold has its release.
bool EndsByItself(const std::vector<FaultStep>& steps) {
  using Action = FaultStep::Action;
  return std::ranges::count(steps, Action::kHold, &FaultStep::action) ==
         std::ranges::count(steps, Action::kRelease, &FaultStep::action);
}

}  // namespace

FaultRunner::FaultRunner(event_base* base, FaultPlan& plan, DeviceSet& devices, Journal& journal,
                         std::function<void()> reset)
    : plan_(plan),
      devices_(devices),
      journal_(journal),
      reset_(std::move(reset)),
      due_(base, -1, 0, [this] { Run(); }) {
  plan.SetAlarm([this] { Wake(); });
}

uint64_t FaultRunner::Running::NextAt() const {
  return done < steps.size() ? begun_ns + steps[done].at_ns : FaultPlan::kNever;
}

void FaultRunner::Run() {
  const uint64_t now = GetTimestampNs();
  for (const FaultPlan::Begun& begun : plan_.TakeDue(now)) Begin(begun, now);
  for (Running& running : running_) {
    while (running.NextAt() <= now) Do(running.steps[running.done++]);
  }
  std::erase_if(running_, [this](const Running& running) {
    const bool over = running.ends && running.done == running.steps.size();
    if (over) plan_.Ended(running.id);
    return over;
  });
  Arm(now);
}

void FaultRunner::Begin(const FaultPlan::Begun& begun, uint64_t now_ns) {
  const FaultKindRow& row = RowOf(begun.spec.kind);
  journal_.Say("fault {} {}", row.name, begun.spec.device);
  auto steps = MakeScript(begun.spec, devices_.Names());
  const bool ends = EndsByItself(steps);
  running_.push_back({begun.id, row.group, now_ns, std::move(steps), 0, ends});
}

void FaultRunner::Do(const FaultStep& step) {
  switch (step.action) {
    case FaultStep::Action::kHold:
      return devices_.Hold(step.device, step.hold);
    case FaultStep::Action::kRelease:
      return devices_.Release(step.device, step.hold);
    case FaultStep::Action::kReset:
      return reset_();
  }
}

void FaultRunner::Arm(uint64_t now_ns) {
  uint64_t next = plan_.NextDue();
  for (const Running& running : running_) next = std::min(next, running.NextAt());
  if (next == FaultPlan::kNever) return due_.Remove();
  due_.AddIn(next > now_ns ? next - now_ns : 0);
}

void FaultRunner::Clear() {
  plan_.Clear();
  running_.clear();
  for (size_t hold = 0; hold < kDeviceHolds; ++hold) {
    devices_.ReleaseAll(static_cast<DeviceHold>(hold));
  }
  journal_.Say("all faults cleared");
}

void FaultRunner::Restore() {
  plan_.Clear(FaultGroup::kNodes);
  std::erase_if(running_, [](const Running& run) { return run.group == FaultGroup::kNodes; });
  devices_.ReleaseAll(DeviceHold::kAway);
  journal_.Say("all nodes restored");
}

}  // namespace kvox::sim
