#include "service/restore_plan.h"

#include <array>
#include <map>
#include <utility>

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

void PlanClosed(const SavedTables& saved, const Inventory& inventory, RestorePlan& plan) {
  for (const auto& [name, running] : saved.running) {
    const BufferPtr buffer = inventory.Find(running.tapout, running.number);
    if (buffer && !buffer->IsEnabled()) plan.buffers.insert(name);
  }
}

std::vector<TapKey> BoundOnceMore(const SavedTables& saved, const std::set<TapKey>& restored) {
  using Buffer = std::pair<bool, uint8_t>;  // whether it is a tap-out, and its number
  const auto buffers = [](const KvoxTapPointState& state) {
    return std::array{Buffer{true, state.info.tapout_buffer},
                      Buffer{false, state.info.inject_buffer}};
  };
  std::map<Buffer, std::map<uint64_t, TapKey>> claims;  // by the time of their binding
  for (const auto& [key, state] : saved.taps) {
    const auto bound = saved.bound.find(key);
    if (bound == saved.bound.end()) continue;
    for (const Buffer& buffer : buffers(state)) {
      if (buffer.second != kNoBuffer) claims[buffer].emplace(bound->second, key);
    }
  }
  std::map<uint64_t, TapKey> last;
  std::vector<TapKey> moved(restored.begin(), restored.end());
  for (size_t i = 0; i < moved.size(); ++i) {
    const auto state = saved.taps.find(moved[i]);
    if (state == saved.taps.end()) continue;
    for (const Buffer& buffer : buffers(state->second)) {
      const auto of_buffer = claims.find(buffer);
      if (of_buffer == claims.end() || of_buffer->second.size() < 2) continue;
      const auto& [time, key] = *of_buffer->second.rbegin();
      const bool restored_later = i < restored.size() && restored.contains(key) && moved[i] < key;
      if (moved[i] == key || restored_later) continue;
      if (last.emplace(time, key).second) moved.push_back(key);  // takes its other buffer as well
    }
  }
  std::vector<TapKey> keys;
  for (const auto& [time, key] : last) keys.push_back(key);
  return keys;
}

}  // namespace kvox
