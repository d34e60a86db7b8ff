#include "service/io_switch.h"

#include <algorithm>

#include "kvox/common/device_names.h"
#include "kvox/common/fixed_text.h"
#include "service/use_case_steps.h"

namespace kvox {

/// First saves what is wanted, then looks for the buffers: a stop that comes while devices open is
/// the later one, and a buffer that comes later finds what is saved.
void IoSwitch::Switch(bool enable, int tapout, Report& report) {
  const char* const verb = enable ? "Enable" : "Disable";
  report.Begin(tapout == kAllBuffers ? FormatText<96>("%s all buffers\n", verb)
                                     : FormatText<96>("%s tap-out buffer %d\n", verb, tapout));
  std::vector<NamedBuffer> named = NamedBy(tapout);
  const bool any = !named.empty() && named.front().present;
  uint64_t start = 0;
  if (enable) {
    start = saved_.SaveStart(named);
  } else {
    saved_.SaveStop([&](const RunningBuffer& running) {
      return tapout == kAllBuffers ||
             std::any_of(named.begin(), named.end(),
                         [&](const NamedBuffer& each) { return each.running.IsSame(running); });
    });
  }
  Outcome outcome;
  for (const NamedBuffer& each : named) {
    const Outcome own = SwitchNamed(enable, each, start);
    outcome.text += own.text;
    if (own.status != StatusCode::kOk) outcome.status = own.status;
  }
  UpdateWakeLock(any ? &report : nullptr);
  report.End("handleEnableBuffers", outcome);
}

Outcome IoSwitch::SwitchNamed(bool enable, const NamedBuffer& named, uint64_t start) {
  const BufferPtr buffer = inventory_.Find(named.running.tapout, named.running.number);
  if (!buffer) return named.remembered ? Outcome() : Failure(named, enable, -1);
  const int32_t status = enable ? buffer->Enable(true, [&] { return saved_.IsRunning(*buffer); })
                                : buffer->Enable(false);
  const bool failed = status != 0 && !(enable && buffer->leaving());  // which may come back
  if (enable) saved_.ConfirmStart(*buffer, start, !failed);
  if (status == 0) SwitchAsSaved(*buffer);
  return failed ? Failure(named, enable, status) : Outcome();
}

Outcome IoSwitch::Failure(const NamedBuffer& named, bool enable, int32_t status) {
  return {StatusCode::kError, FormatText<96>("%s failed to %s, status %d\n", named.name.c_str(),
                                             enable ? "enable" : "disable", status)};
}

/// All buffers, tap-outs first; or the tap-out, whether it exists or not, and the inject buffers
/// that its processors write. What a recovery has not connected again yet counts as connected.
std::vector<NamedBuffer> IoSwitch::NamedBy(int tapout) const {
  std::vector<NamedBuffer> named;
  const auto add = [&](const RunningBuffer& running) {
    const auto is_same = [&](const NamedBuffer& each) { return each.running.IsSame(running); };
    if (std::any_of(named.begin(), named.end(), is_same)) return;
    const BufferPtr present = inventory_.Find(running.tapout, running.number);
    const char* const prefix = running.tapout ? kTapOutBufferPrefix : kInjectBufferPrefix;
    named.push_back({present ? present->name() : prefix + std::to_string(running.number), running,
                     present != nullptr});
  };
  const auto add_present = [&](const std::vector<BufferPtr>& buffers) {
    for (const BufferPtr& buffer : buffers) {
      add({static_cast<int32_t>(buffer->index()), buffer->is_tapout()});
    }
  };
  if (tapout == kAllBuffers) {
    add_present(inventory_.TapOuts());
    add_present(inventory_.Injects());
    return named;
  }
  if (tapout < 0) return named;
  add({tapout, true});
  if (const BufferPtr found = inventory_.FindTapOut(tapout)) add_present(wiring_.WrittenBy(*found));
  for (const ProcessorPtr& processor : inventory_.Processors()) {
    const ConnectionState saved = saved_.FindConnection(processor->id());
    if (saved.tapout_buffer != tapout || saved.inject_buffer < 0) continue;
    if (!inventory_.FindInject(saved.inject_buffer) || wiring_.AwaitsRestore(*processor)) {
      add({saved.inject_buffer, false});
    }
  }
  return named;
}

void IoSwitch::SwitchAsSaved(const KvoxBuffer& buffer) {
  const auto still_wanted = [&] { return saved_.IsRunning(buffer); };
  for (;;) {  // repeats only if another command came in between
    const BufferPtr present = inventory_.FindPresent(buffer);
    if (!present) return;
    const bool wanted = still_wanted();
    if (present->IsEnabled() == wanted || present->Enable(wanted, still_wanted) != 0) return;
  }
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
