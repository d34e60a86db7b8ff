#include "service/restore_plan.h"

namespace kvox {

void PlanEverything(const SavedTables& saved, const Inventory& inventory, RestorePlan& plan) {
  for (const auto& [key, state] : saved.taps) plan.taps.insert(key);
  for (const ProcessorPtr& processor : inventory.Processors()) {
    plan.processors.insert(processor->id());
  }
  for (const auto& [name, running] : saved.running) plan.buffers.insert(name);
}

void PlanFor(const KvoxBuffer& added, const SavedTables& saved, const Inventory& inventory,
             RestorePlan& plan) {
  const auto completed = [&](int tapout, int inject) {
    return (added.is_tapout() ? tapout : inject) == static_cast<int>(added.index()) &&
           (tapout == -1 || inventory.FindTapOut(tapout)) &&
           (inject == -1 || inventory.FindInject(inject));
  };
  for (const auto& [key, state] : saved.taps) {
    if (completed(BufferNumber(state.info.tapout_buffer), BufferNumber(state.info.inject_buffer))) {
      plan.taps.insert(key);
    }
  }
  for (const auto& [id, ends] : saved.connections) {
    if (completed(ends.tapout_buffer, ends.inject_buffer)) plan.processors.insert(id);
  }
  for (const auto& [name, running] : saved.running) {
    if (running.Is(added)) plan.buffers.insert(name);
  }
}

}  // namespace kvox
