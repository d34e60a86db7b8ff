#include "service/io_switch.h"

#include <algorithm>

#include "kvox/common/fixed_text.h"
#include "service/use_case_steps.h"

namespace kvox {

void IoSwitch::Switch(bool enable, int tapout, Report& report) {
  const char* const verb = enable ? "Enable" : "Disable";
  report.Begin(tapout == kAllBuffers ? FormatText<96>("%s all buffers\n", verb)
                                     : FormatText<96>("%s tap-out buffer %d\n", verb, tapout));
  const std::vector<BufferPtr> buffers = BuffersFor(tapout);
  Outcome outcome;
  std::vector<BufferPtr> switched;
  for (const BufferPtr& buffer : buffers) {
    const int32_t status = buffer->Enable(enable);
    if (status == 0) {
      switched.push_back(buffer);
      continue;
    }
    outcome.text += FormatText<96>("%s failed to %s, status %d\n", buffer->name().c_str(),
                                   enable ? "enable" : "disable", status);
    outcome.status = StatusCode::kError;
  }
  saved_.SaveRunning(switched, enable);
  if (!enable) ForgetAbsent(tapout);
  for (const BufferPtr& buffer : switched) SwitchAsSaved(*buffer);
  UpdateWakeLock(buffers.empty() ? nullptr : &report);
  report.End("handleEnableBuffers", outcome);
}

std::vector<BufferPtr> IoSwitch::BuffersFor(int tapout) const {
  std::vector<BufferPtr> buffers;
  std::vector<BufferPtr> injects;
  if (tapout == kAllBuffers) {
    buffers = inventory_.TapOuts();
    injects = inventory_.Injects();
  } else if (const BufferPtr found = inventory_.FindTapOut(tapout)) {
    buffers = {found};
    injects = wiring_.WrittenBy(*found);
  }
  buffers.insert(buffers.end(), injects.begin(), injects.end());
  return buffers;
}

void IoSwitch::SwitchAsSaved(const KvoxBuffer& buffer) {
  for (;;) {  // repeats only if another command came in between
    const BufferPtr present = inventory_.FindPresent(buffer);
    if (!present) return;
    const bool wanted = saved_.IsRunning(buffer);
    if (present->IsEnabled() == wanted || present->Enable(wanted) != 0) return;
  }
}

/// Missing buffers cannot be switched off, but must not come back enabled.
void IoSwitch::ForgetAbsent(int tapout) {
  const auto connections = saved_.Copy().connections;
  saved_.ForgetRunning([&](const RunningBuffer& running) {
    if (running.tapout ? inventory_.FindTapOut(running.number) != nullptr
                       : inventory_.FindInject(running.number) != nullptr) {
      return false;
    }
    if (tapout == kAllBuffers || (running.tapout && running.number == tapout)) return true;
    return !running.tapout &&
           std::any_of(connections.begin(), connections.end(), [&](const auto& connection) {
             return connection.second.tapout_buffer == tapout &&
                    connection.second.inject_buffer == running.number;
           });
  });
}

void IoSwitch::UpdateWakeLock(Report* report) {
  MutexLock lock(wake_lock_mutex_);
  unsigned enabled_buffers = 0;
  unsigned active_processors = 0;
  for (const BufferPtr& buffer : inventory_.TapOuts()) {
    if (!buffer->IsEnabled()) continue;
    ++enabled_buffers;
    for (const ProcessorPtr& processor : wiring_.ReadersOf(*buffer)) {
      if (processor->IsEnabled()) ++active_processors;
    }
  }
  const ProcessorPtr hotword = inventory_.FindProcessor(kHotwordProcessor);
  if (hotword && hotword->IsEnabled()) active_processors = std::max(active_processors, 1u);
  const bool needed = enabled_buffers != 0;
  if (report != nullptr) {
    report->Push(FormatText<64>("%u buffers enabled, %u processor%s active, wakelock needed: %u",
                                enabled_buffers, active_processors,
                                active_processors == 1 ? "" : "s", needed ? 1u : 0u));
  }
  link_.UpdateWakeLock(needed);
}

}  // namespace kvox
