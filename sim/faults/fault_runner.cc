#include "sim/faults/fault_runner.h"

#include <algorithm>
#include <utility>

#include "kvox/common/kvox_utils.h"

namespace kvox::sim {

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

/// All steps are done, and each impairment has its repair. Others last until they are cleared.
bool FaultRunner::Running::Over() const {
  using Action = FaultStep::Action;
  return done == steps.size() && std::ranges::count(steps, Action::kImpair, &FaultStep::action) ==
                                     std::ranges::count(steps, Action::kRepair, &FaultStep::action);
}

void FaultRunner::Run() {
  const uint64_t now = GetTimestampNs();
  for (const FaultPlan::Started& started : plan_.StartDue(now)) {
    const FaultKindRow& row = RowOf(started.config.kind);
    journal_.Log("fault {} {}", row.name, started.config.device);
    running_.push_back({started.id, row.group, now, MakeScript(started.config, devices_.Names())});
  }
  for (Running& running : running_) {
    while (running.NextAt() <= now) Do(running.steps[running.done++]);
  }
  std::erase_if(running_, [this](const Running& running) {
    if (running.Over()) plan_.Ended(running.id);
    return running.Over();
  });
  uint64_t next = plan_.NextDue();
  for (const Running& running : running_) next = std::min(next, running.NextAt());
  if (next == FaultPlan::kNever) return due_.Remove();
  due_.AddIn(next > now ? next - now : 0);
}

void FaultRunner::Do(const FaultStep& step) {
  switch (step.action) {
    case FaultStep::Action::kImpair:
      return devices_.Impair(step.device, step.impairment);
    case FaultStep::Action::kRepair:
      return devices_.Repair(step.device, step.impairment);
    case FaultStep::Action::kReset:
      return reset_();
  }
}

void FaultRunner::Clear() {
  plan_.Clear();
  running_.clear();
  for (size_t impairment = 0; impairment < kImpairments; ++impairment) {
    devices_.RepairAll(static_cast<Impairment>(impairment));
  }
  journal_.Log("all faults cleared");
}

void FaultRunner::Restore() {
  plan_.Clear(FaultGroup::kNodes);
  std::erase_if(running_, [](const Running& run) { return run.group == FaultGroup::kNodes; });
  devices_.RepairAll(Impairment::kRemoved);
  journal_.Log("all nodes restored");
}

}  // namespace kvox::sim
