#include "service/saved_state.h"

#include <algorithm>

#include "kvox/common/log.h"
#include "service/limits.h"

namespace kvox {

SavedTables SavedState::Copy() const {
  MutexLock lock(mutex_);
  return tables_;
}

void SavedState::ChangeTap(const TapArguments& tap,
                           const std::function<void(KvoxTapPointState&)>& change) {
  const TapAddress address = tap.Address();
  MutexLock lock(mutex_);
  KvoxTapPointState& state = tables_.taps[TapKey(address)];
  state.info.tap = address.tap;
  state.info.index = address.index;
  state.info.core = address.core;
  change(state);
}

void SavedState::ForgetTapIfIdle(const TapArguments& tap) {
  MutexLock lock(mutex_);
  const auto found = tables_.taps.find(TapKey(tap.Address()));
  if (found != tables_.taps.end() && found->second.Idle()) tables_.taps.erase(found);
}

std::optional<KvoxTapPointState> SavedState::FindTap(TapKey key) const {
  MutexLock lock(mutex_);
  const auto found = tables_.taps.find(key);
  if (found == tables_.taps.end()) return std::nullopt;
  return found->second;
}

std::optional<KvoxTapPointState> SavedState::TapBoundTo(const KvoxBuffer& buffer) const {
  MutexLock lock(mutex_);
  for (const auto& [key, state] : tables_.taps) {
    const uint8_t id = buffer.is_tapout() ? state.info.tapout_buffer : state.info.inject_buffer;
    if (id == buffer.index()) return state;
  }
  return std::nullopt;
}

void SavedState::SaveConnection(FourCc processor, const ConnectionState& connection) {
  MutexLock lock(mutex_);
  if (connection.tapout_buffer == -1 && connection.inject_buffer == -1) {
    tables_.connections.erase(processor);
  } else {
    tables_.connections[processor] = connection;
  }
}

ConnectionState SavedState::FindConnection(FourCc processor) const {
  MutexLock lock(mutex_);
  const auto found = tables_.connections.find(processor);
  return found == tables_.connections.end() ? ConnectionState() : found->second;
}

void SavedState::LimitConnections(const std::vector<ProcessorPtr>& existing) {
  MutexLock lock(mutex_);
  if (tables_.connections.size() < kMaxProcessors) return;
  const size_t forgotten = std::erase_if(tables_.connections, [&](const auto& entry) {
    return std::none_of(existing.begin(), existing.end(),
                        [&](const auto& processor) { return processor->id() == entry.first; });
  });
  if (forgotten == 0) return;
  LogWarning("Forgot the connections of %zu deleted processors: %zu are remembered at most",
             forgotten, kMaxProcessors);
}

void SavedState::SaveRunning(const std::vector<BufferPtr>& buffers, bool running) {
  MutexLock lock(mutex_);
  for (const BufferPtr& buffer : buffers) {
    std::erase_if(tables_.running, [&](const auto& entry) { return entry.second.Is(*buffer); });
    if (!running) continue;
    tables_.running[buffer->name()] = {.number = static_cast<int32_t>(buffer->index()),
                                       .tapout = buffer->is_tapout()};
  }
}

bool SavedState::IsRunning(const KvoxBuffer& buffer) const {
  MutexLock lock(mutex_);
  return std::any_of(tables_.running.begin(), tables_.running.end(),
                     [&](const auto& entry) { return entry.second.Is(buffer); });
}

std::optional<RunningBuffer> SavedState::FindRunning(const std::string& name) const {
  MutexLock lock(mutex_);
  const auto found = tables_.running.find(name);
  if (found == tables_.running.end()) return std::nullopt;
  return found->second;
}

void SavedState::ForgetRunning(const std::function<bool(const RunningBuffer&)>& forget) {
  MutexLock lock(mutex_);
  std::erase_if(tables_.running, [&](const auto& entry) { return forget(entry.second); });
}

}  // namespace kvox
