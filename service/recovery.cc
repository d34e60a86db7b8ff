#include "service/recovery.h"

#include <utility>

#include "kvox/common/device_names.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr int kScanAttempts = 5;
constexpr auto kScanPause = std::chrono::milliseconds(500);

/// After a departure: if nothing has returned two seconds later, when the first scan ends its
/// pause, it may never.
constexpr auto kGoneForGood = std::chrono::seconds(2) - kScanPause;

/// One immediate scan, whatever it finds.
class NoPauses : public RecoveryClock {
  TimePoint Now() const override { return std::chrono::steady_clock::now(); }
  bool Pause(std::chrono::milliseconds) override { return false; }
  bool stopping() const override { return false; }
  void ScanBegins() override {}
  Wake WaitForFirstArrival(TimePoint) override { return Wake::kStopping; }
  Wake WaitForArrivals(TimePoint) override { return Wake::kStopping; }
};

const char* PluralS(size_t count) {
  return count == 1 ? "" : "s";
}

}  // namespace

Recovery::Recovery(RecoveryLinks links) : links_(std::move(links)) {}

Recovery::~Recovery() {
  StopRun().reset();
  Drop(TakeBuffers());
}

void Recovery::ScanAtStart(RecoveryClock& clock) {
  Unfinished nothing;  // at start there is nothing to restore
  if (ScanWithRetries(clock)) RestoreAll(clock, nothing);
}

void Recovery::HandleDeviceEvent(const DeviceEvent& event) {
  if (!IsDevice(event.name)) return;
  switch (event.kind) {
    case DeviceEvent::Kind::kArrived:
      return HandleArrival(event.name);
    case DeviceEvent::Kind::kLeft:
    case DeviceEvent::Kind::kAllGone:
    case DeviceEvent::Kind::kDirectoryGone:
      return HandleDeparture(event.name);
    case DeviceEvent::Kind::kOpened:
      return HandleControlOpened();
    case DeviceEvent::Kind::kRightsChanged:
      return HandleRightsChanged();
  }
}

/// The control device, or one that a scan would take for a data device. Of several names with the
/// same number, the one that has a buffer counts.
bool Recovery::IsDevice(std::string_view name) const {
  if (name == kControlDevice) return true;
  const bool tapout = name.starts_with(kTapOutPrefix);
  if (!tapout && !name.starts_with(kInjectPrefix)) return false;
  const std::string rest(
      name.substr(std::string_view(tapout ? kTapOutPrefix : kInjectPrefix).size()));
  const auto number = DeviceNumber(rest);
  if (!number) return false;
  const BufferPtr present = links_.inventory.Find(tapout, *number);
  return !present || present->name() == (tapout ? kTapOutBufferPrefix : kInjectBufferPrefix) + rest;
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

/// What had no reply is tried again at once.
void Recovery::HandleControlOpened() {
  MutexLock lock(run_mutex_);
  control_arrived_ = true;
  if (run_) run_->NoteReady();
}

/// Buffers that did not open are tried again.
void Recovery::HandleRightsChanged() {
  MutexLock lock(run_mutex_);
  rights_changed_ = true;
  if (run_) run_->NoteRights();
}

/// What a recovery that is at work adds before it ends is dropped as well.
void Recovery::HandleDeparture(const std::string& name) {
  LogInfo("%s offline\n", name.c_str());
  std::unique_ptr<RecoveryRun> run = StopRun();
  DropBuffers();
  if (run) {
    run.reset();
    DropBuffers();
  }
  MutexLock lock(run_mutex_);
  run_ = links_.start([this](RecoveryClock& clock) { RunAfterDeparture(clock); });
}

/// Tells the recovery to end, and ends its waits. The caller joins it by destroying it.
std::unique_ptr<RecoveryRun> Recovery::StopRun() {
  std::unique_ptr<RecoveryRun> run;
  {
    MutexLock lock(run_mutex_);
    run = std::move(run_);
    if (run) run->RequestStop();
  }
  for (const auto& buffers : {links_.inventory.TapOuts(), links_.inventory.Injects()}) {
    for (const BufferPtr& buffer : buffers) buffer->AbandonOpening();
  }
  return run;
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

void Recovery::RunAfterDeparture(RecoveryClock& clock) {
  auto wake = clock.WaitForFirstArrival(clock.Now() + kGoneForGood);
  if (wake == RecoveryClock::Wake::kTime && !BothKindsExist()) {
    wake = clock.WaitForFirstArrival(RecoveryClock::TimePoint::max());
  }
  if (wake != RecoveryClock::Wake::kStopping) Run(clock);
}

bool Recovery::BothKindsExist() const {
  const DeviceScan scan = links_.scan(links_.device_directory);
  return !scan.tapouts.empty() && !scan.injects.empty();
}

/// First everything, then what later devices complete. Devices that do not open are retried in
/// between, so nothing else waits for them.
void Recovery::Run(RecoveryClock& clock) {
  Unfinished unfinished;
  if (ScanWithRetries(clock)) RestoreAll(clock, unfinished);
  for (;;) {
    switch (clock.WaitForArrivals(unfinished.NextRetry())) {
      case RecoveryClock::Wake::kStopping:
        return;
      case RecoveryClock::Wake::kArrivals:
        AddArrivals(clock, unfinished);
        break;
      case RecoveryClock::Wake::kTime:
        RetryOpenings(clock, unfinished);
        RetryTaps(clock, unfinished);
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
  if (clock.stopping()) return false;  // a departure has taken the buffers
  const DeviceScan scan = links_.scan(links_.device_directory);
  if (!scan.any_tapout_path) {
    LogInfo("Scanning for kvox devices %s/%s* did not succeed", links_.device_directory.c_str(),
            kTapOutPrefix);
    LogInfo("Note: No Kvox buffers");
    return false;
  }
  added = links_.inventory.AddBuffers(scan, links_.buffers);
  return true;
}

/// Retries what the co-processor has not replied to once its control device has arrived.
void Recovery::AddArrivals(RecoveryClock& clock, Unfinished& unfinished) {
  std::vector<BufferPtr> added;
  if (clock.stopping() || !AddBuffers(clock, added)) return;
  RestorePlan plan;
  const SavedTables saved = links_.saved.Copy();
  for (const BufferPtr& buffer : added) PlanFor(*buffer, saved, links_.inventory, plan);
  if (TakeRightsChange()) PlanClosed(saved, links_.inventory, plan);
  for (const TapKey key : plan.taps) unfinished.taps.erase(key);
  if (TakeControlArrival()) {
    for (auto& [key, retry] : unfinished.taps) {
      retry.number = 0;
      plan.taps.insert(key);
    }
  }
  if (unfinished.everything) PlanEverything(saved, links_.inventory, plan);
  Restore(clock, plan, unfinished);
}

bool Recovery::TakeRightsChange() {
  MutexLock lock(run_mutex_);
  return std::exchange(rights_changed_, false);
}

bool Recovery::TakeControlArrival() {
  MutexLock lock(run_mutex_);
  return std::exchange(control_arrived_, false);
}

}  // namespace kvox
