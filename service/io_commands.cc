// Starting and stopping audio I/O, and the wake lock that goes with it.

#include <algorithm>
#include <utility>

#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

constexpr int kAllBuffers = -1;

/// A hot-word processor that is enabled counts as active wherever its audio comes from.
constexpr FourCc kHotwordProcessor = MakeFourCc("hwae");

/// By number: a device that comes back may bear it under another name ("1", "01").
bool IsAbout(const KvoxBufferState& state, const KvoxBuffer& buffer) {
  return state.tapout == buffer.is_tapout() && state.number == static_cast<int32_t>(buffer.index());
}

}  // namespace

KvoxService::Status KvoxService::StartIo(int32_t tapout, CommandResult* result) {
  handleEnableBuffers(true, tapout, result);
  return Status::ok();
}

KvoxService::Status KvoxService::StopIo(int32_t tapout, CommandResult* result) {
  handleEnableBuffers(false, tapout, result);
  return Status::ok();
}

void KvoxService::handleEnableBuffers(bool enable, int tapout, CommandResult* result) {
  const char* const verb = enable ? "Enable" : "Disable";
  BeginCommand(tapout == kAllBuffers ? FormatText<96>("%s all buffers\n", verb)
                                     : FormatText<96>("%s tap-out buffer %d\n", verb, tapout),
               result);
  std::vector<std::shared_ptr<KvoxBuffer>> buffers;
  {
    MutexLock lock(mutex_);
    buffers = BuffersFor(tapout);
  }
  std::string text;
  std::vector<std::shared_ptr<KvoxBuffer>> switched;
  for (const auto& buffer : buffers) {
    const int32_t status = buffer->Enable(enable);
    if (status == 0) {
      switched.push_back(buffer);
    } else {
      text += FormatText<96>("%s failed to %s, status %d\n", buffer->name().c_str(),
                             enable ? "enable" : "disable", status);
    }
  }
  {
    MutexLock lock(mutex_);
    for (const auto& buffer : switched) RecordBufferState(*buffer, enable);
    if (!enable) ForgetStatesOfAbsentBuffers(tapout);
  }
  for (const auto& buffer : switched) SwitchAsRecorded(*buffer);
  MutexLock lock(mutex_);
  updateWakeLock(buffers.empty() ? nullptr : result);
  if (switched.size() < buffers.size()) result->status = CommandStatus::ERROR;
  print_command_status("handleEnableBuffers", text, result);
}

/// All buffers, tap-outs first; or one tap-out and the inject buffers that its processors write.
std::vector<std::shared_ptr<KvoxBuffer>> KvoxService::BuffersFor(int tapout) {
  std::vector<std::shared_ptr<KvoxBuffer>> buffers;
  if (tapout == kAllBuffers) {
    for (const auto& [number, buffer] : buffers_.tapouts) buffers.push_back(buffer);
    for (const auto& [number, buffer] : buffers_.injects) buffers.push_back(buffer);
    return buffers;
  }
  const auto found = buffers_.tapouts.find(tapout);
  if (found == buffers_.tapouts.end()) return buffers;
  buffers.push_back(found->second);
  found->second->AppendWrittenBuffers(buffers);
  return buffers;
}

void KvoxService::RecordBufferState(const KvoxBuffer& buffer, bool enable) {
  std::erase_if(buffer_states_, [&](const auto& entry) { return IsAbout(entry.second, buffer); });
  if (!enable) return;
  buffer_states_[buffer.name()] = {.number = static_cast<int32_t>(buffer.index()),
                                   .tapout = buffer.is_tapout(),
                                   .enabled = true};
}

/// Whoever switches a buffer or records a wish does this last. Commands and a recovery that switch
/// the same buffer at the same time then leave it as the wish recorded last says, which is also
/// what the next recovery goes by. Each further round follows another command.
void KvoxService::SwitchAsRecorded(const KvoxBuffer& buffer) {
  for (;;) {
    std::shared_ptr<KvoxBuffer> present;  // the device may have gone and come meanwhile
    bool wanted;
    {
      MutexLock lock(mutex_);
      const BufferMap& buffers = buffer.is_tapout() ? buffers_.tapouts : buffers_.injects;
      const auto found = buffers.find(static_cast<int>(buffer.index()));
      if (found == buffers.end()) return;
      present = found->second;
      wanted = std::any_of(buffer_states_.begin(), buffer_states_.end(), [&](const auto& entry) {
        return entry.second.enabled && IsAbout(entry.second, buffer);
      });
    }
    if (present->IsEnabled() == wanted || present->Enable(wanted) != 0) return;
  }
}

/// Buffers that are away cannot be switched off, but shall not come back enabled.
void KvoxService::ForgetStatesOfAbsentBuffers(int tapout) {
  std::erase_if(buffer_states_, [&](const auto& entry) REQUIRES(mutex_) {
    const KvoxBufferState& state = entry.second;
    const BufferMap& buffers = state.tapout ? buffers_.tapouts : buffers_.injects;
    if (buffers.contains(state.number)) return false;
    if (tapout == kAllBuffers || (state.tapout && state.number == tapout)) return true;
    const auto fed = [&](const auto& connection) {
      return !state.tapout && connection.second.tapout_buffer == tapout &&
             connection.second.inject_buffer == state.number;
    };
    return std::any_of(connections_.begin(), connections_.end(), fed);
  });
}

/// Audio between host and co-processor keeps the host awake. Recomputed from the tables each time;
/// without a result nothing is reported.
void KvoxService::updateWakeLock(CommandResult* result) {
  unsigned enabled_buffers = 0;
  unsigned active_processors = 0;
  for (const auto& [number, buffer] : buffers_.tapouts) {
    if (!buffer->IsEnabled()) continue;
    ++enabled_buffers;
    active_processors += buffer->CountEnabledOutputs();
  }
  const auto hotword = GetKvoxProcessor(kHotwordProcessor);
  if (hotword && hotword->IsEnabled()) active_processors = std::max(active_processors, 1u);
  const bool needed = enabled_buffers != 0;
  if (result != nullptr) {
    PushLine(FormatText<64>("%u buffers enabled, %u processor%s active, wakelock needed: %u",
                            enabled_buffers, active_processors, active_processors == 1 ? "" : "s",
                            needed ? 1u : 0u),
             result);
  }
  environment_.link.UpdateWakeLock(needed);
}

}  // namespace kvox
