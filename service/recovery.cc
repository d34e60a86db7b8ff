#include "service/recovery.h"

#include <utility>

#include "kvox/common/device_names.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr int kScanAttempts = 5;
constexpr auto kScanPause = std::chrono::milliseconds(500);

/// One immediate scan, whatever it finds.
class NoPauses : public RecoveryClock {
  TimePoint Now() const override { return std::chrono::steady_clock::now(); }
  bool Pause(std::chrono::milliseconds) override { return false; }
  bool stopping() const override { return false; }
  void ScanBegins() override {}
  Wake WaitForArrivals(TimePoint) override { return Wake::kStopping; }
};

const char* PluralS(size_t count) {
  return count == 1 ? "" : "s";
}

}  // namespace

Recovery::Recovery(RecoveryLinks links) : links_(std::move(links)) {}

Recovery::~Recovery() {
  EndRun();
  Drop(TakeBuffers());
}

void Recovery::ScanAtStart(RecoveryClock& clock) {
  Unfinished nothing;  // at start there is nothing to restore
  if (ScanWithRetries(clock)) RestoreAll(clock, nothing);
}

void Recovery::HandleDeviceEvent(const DeviceEvent& event) {
  if (!event.name.starts_with(kDevicePrefix)) return;
  switch (event.kind) {
    case DeviceEvent::Kind::kArrived:
      return HandleArrival(event.name);
    case DeviceEvent::Kind::kLeft:
    case DeviceEvent::Kind::kAllGone:
      return HandleDeparture(event.name);
  }
}

void Recovery::HandleArrival(const std::string& name) {
  LogInfo("%s online\n", name.c_str());
  MutexLock lock(run_mutex_);
  if (name == kControlDevice) control_arrived_ = true;
  if (run_) {
    run_->NoteArrival();
  } else {
    run_ = links_.start([this](RecoveryClock& clock) { Run(clock); });
  }
}

/// Ends the recovery's own waits before joining it, so the join is short.
void Recovery::HandleDeparture(const std::string& name) {
  LogInfo("%s offline\n", name.c_str());
  EndRun();
  DropBuffers();
}

void Recovery::EndRun() {
  std::unique_ptr<RecoveryRun> run;
  {
    MutexLock lock(run_mutex_);
    run = std::move(run_);
    if (run) run->RequestStop();
  }
  for (const auto& buffers : {links_.inventory.TapOuts(), links_.inventory.Injects()}) {
    for (const BufferPtr& buffer : buffers) buffer->AbandonOpening();
  }
}

void Recovery::Rescan() {
  NoPauses clock;
  Scan(clock);
  links_.io.UpdateWakeLock();
}

void Recovery::DropBuffers() {
  const std::vector<BufferPtr> buffers = TakeBuffers();
  links_.io.UpdateWakeLock();
  Drop(buffers);
}

std::vector<BufferPtr> Recovery::TakeBuffers() {
  MutexLock lock(scan_mutex_);
  return links_.inventory.TakeBuffers();
}

/// Tap-outs first, so that no packet is in flight when injects close.
void Recovery::Drop(const std::vector<BufferPtr>& buffers) {
  for (const BufferPtr& buffer : buffers) links_.wiring.DropBuffer(buffer);
}

/// First everything, then what later devices complete. Devices that do not open are retried in
/// between, so nothing else waits for them.
void Recovery::Run(RecoveryClock& clock) {
  Unfinished unfinished;
  if (ScanWithRetries(clock)) RestoreAll(clock, unfinished);
  for (;;) {
    switch (clock.WaitForArrivals(unfinished.NextOpening())) {
      case RecoveryClock::Wake::kStopping:
        return;
      case RecoveryClock::Wake::kArrivals:
        AddArrivals(clock, unfinished);
        break;
      case RecoveryClock::Wake::kTime:
        RetryOpenings(clock, unfinished);
        break;
    }
  }
}

/// Up to five scans, each after a pause. False if the last one found no tap-out device, or the
/// recovery must end.
bool Recovery::ScanWithRetries(RecoveryClock& clock) {
  bool found = false;
  for (int attempt = 0; attempt < kScanAttempts; ++attempt) {
    if (!clock.Pause(kScanPause)) return false;
    TakeControlArrival();
    found = Scan(clock);
    if (links_.inventory.HasBothKinds()) break;
  }
  const size_t tapouts = links_.inventory.TapOuts().size();
  const size_t injects = links_.inventory.Injects().size();
  LogInfo("Found %u tap-out buffer%s, %u inject buffer%s", static_cast<unsigned>(tapouts),
          PluralS(tapouts), static_cast<unsigned>(injects), PluralS(injects));
  return found;
}

/// Replaces all buffers. False if there is no tap-out device, or the recovery must end.
bool Recovery::Scan(RecoveryClock& clock) {
  Drop(TakeBuffers());
  if (clock.stopping()) return false;
  std::vector<BufferPtr> added;
  return AddBuffers(clock, added);
}

/// Adds missing buffers. False if there is no tap-out device.
bool Recovery::AddBuffers(RecoveryClock& clock, std::vector<BufferPtr>& added) {
  clock.ScanBegins();
  MutexLock lock(scan_mutex_);
  const DeviceScan scan = links_.scan(links_.device_directory);
  if (!scan.any_tapout_path) return false;
  added = links_.inventory.AddBuffers(scan, links_.buffers);
  return true;
}

/// Retries what the co-processor refused once its control device has arrived.
void Recovery::AddArrivals(RecoveryClock& clock, Unfinished& unfinished) {
  std::vector<BufferPtr> added;
  if (clock.stopping() || !AddBuffers(clock, added)) return;
  RestorePlan plan;
  const SavedTables saved = links_.saved.Copy();
  for (const BufferPtr& buffer : added) PlanFor(*buffer, saved, links_.inventory, plan);
  if (TakeControlArrival()) plan.taps.insert(unfinished.taps.begin(), unfinished.taps.end());
  if (unfinished.everything) PlanEverything(saved, links_.inventory, plan);
  Restore(clock, plan, unfinished);
}

bool Recovery::TakeControlArrival() {
  MutexLock lock(run_mutex_);
  return std::exchange(control_arrived_, false);
}

}  // namespace kvox
