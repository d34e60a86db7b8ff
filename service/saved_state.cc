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
  MutexLock lock(mutex_);
  change(TapLocked(tap));
}

void SavedState::BindTap(const TapArguments& tap, uint8_t tapout, uint8_t inject) {
  MutexLock lock(mutex_);
  KvoxTapPointState& state = TapLocked(tap);
  state.info.tapout_buffer = tapout;
  state.info.inject_buffer = inject;
  tables_.bound[TapKey(tap.Address())] = ++bindings_;
}

KvoxTapPointState& SavedState::TapLocked(const TapArguments& tap) {
  const TapAddress address = tap.Address();
  KvoxTapPointState& state = tables_.taps[TapKey(address)];
  state.info.tap = address.tap;
  state.info.index = address.index;
  state.info.core = address.core;
  return state;
}

void SavedState::ForgetTapIfIdle(const TapArguments& tap) {
  MutexLock lock(mutex_);
  const auto found = tables_.taps.find(TapKey(tap.Address()));
  if (found == tables_.taps.end() || !found->second.Idle()) return;
  tables_.bound.erase(found->first);
  tables_.taps.erase(found);
}

void SavedState::ForgetTap(const TapArguments& tap) {
  MutexLock lock(mutex_);
  tables_.bound.erase(TapKey(tap.Address()));
  tables_.taps.erase(TapKey(tap.Address()));
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

std::vector<FourCc> SavedState::SaveConnection(FourCc processor,
                                               const ConnectionState& connection) {
  std::vector<FourCc> losers;
  MutexLock lock(mutex_);
  for (auto& [id, other] : tables_.connections) {
    if (connection.inject_buffer == -1 || id == processor ||
        other.inject_buffer != connection.inject_buffer) {
      continue;
    }
    other.inject_buffer = -1;
    losers.push_back(id);
  }
  tables_.connections[processor] = connection;
  std::erase_if(tables_.connections, [](const auto& entry) {
    return entry.second.tapout_buffer == -1 && entry.second.inject_buffer == -1;
  });
  return losers;
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

uint64_t SavedState::SaveStart(std::vector<NamedBuffer>& buffers) {
  MutexLock lock(mutex_);
  ++starts_;
  for (NamedBuffer& buffer : buffers) {
    const auto same =
        std::find_if(tables_.running.begin(), tables_.running.end(),
                     [&buffer](const auto& entry) { return entry.second.IsSame(buffer.running); });
    const bool known = same != tables_.running.end();
    const bool was_running = known && same->second.confirmed;
    if (known) tables_.running.erase(same);
    buffer.remembered = known || buffer.present || tables_.running.size() < kMaxRunning;
    if (!buffer.remembered) {
      LogWarning("%s is not started: %zu others are to run, more are not remembered; stop some",
                 buffer.name.c_str(), kMaxRunning);
      continue;
    }
    buffer.running.start = starts_;
    buffer.running.confirmed = was_running || !buffer.present;  // that wish is granted already
    tables_.running[buffer.name] = buffer.running;
  }
  return starts_;
}

void SavedState::ConfirmStart(const KvoxBuffer& buffer, uint64_t start, bool started) {
  MutexLock lock(mutex_);
  for (auto& [name, entry] : tables_.running) {
    if (!entry.Is(buffer)) continue;
    if (started) {
      entry.confirmed = true;
    } else if (entry.start == start && !entry.confirmed) {
      tables_.running.erase(std::string(name));
    }
    return;
  }
}

void SavedState::SaveStop(const std::function<bool(const RunningBuffer&)>& stops) {
  MutexLock lock(mutex_);
  std::erase_if(tables_.running, [&](const auto& entry) { return stops(entry.second); });
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

}  // namespace kvox
