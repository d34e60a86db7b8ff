// Finding the co-processor's data devices, and noticing when they come and go.

#include <cstring>
#include <utility>

#include "kvox/common/device_names.h"
#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

constexpr int kScanAttempts = 5;
constexpr auto kScanPause = std::chrono::milliseconds(500);

const char* PluralS(size_t count) {
  return count == 1 ? "" : "s";
}

}  // namespace

void KvoxService::initKvoWithRetry(RecoveryPacer& pacer) {
  RestorePlan plan;
  Unfinished nothing;  // at start there is nothing to restore
  if (ScanWithRetries(pacer) != 0) return;
  PlanEverything(plan);
  Restore(pacer, plan, nothing);
}

/// First everything, then what devices that come later complete. A device that does not open is
/// tried again beside that, so it keeps nothing else waiting.
void KvoxService::Recover(RecoveryPacer& pacer) {
  Unfinished unfinished;
  if (ScanWithRetries(pacer) == 0) {
    RestorePlan plan;
    PlanEverything(plan);
    Restore(pacer, plan, unfinished);
  }
  for (;;) {
    switch (pacer.WaitForArrivals(unfinished.NextOpening())) {
      case RecoveryPacer::Wake::kStopping:
        return;
      case RecoveryPacer::Wake::kArrivals:
        RecoverLate(pacer, unfinished);
        break;
      case RecoveryPacer::Wake::kTime:
        RetryOpenings(pacer, unfinished);
        break;
    }
  }
}

/// What the co-processor refused is tried again once its control device has come.
void KvoxService::RecoverLate(RecoveryPacer& pacer, Unfinished& unfinished) {
  if (pacer.stopping()) return;
  pacer.ScanBegins();
  RestorePlan plan;
  {
    MutexLock lock(mutex_);
    const DeviceScan scan = environment_.scan(environment_.device_directory);
    if (!scan.any_tapout_path) return;
    for (const auto& added : AddBuffers(scan)) PlanFor(*added, plan);
  }
  if (TakeControlArrival()) plan.taps.insert(unfinished.taps.begin(), unfinished.taps.end());
  if (unfinished.everything) PlanEverything(plan);
  Restore(pacer, plan, unfinished);
}

bool KvoxService::TakeControlArrival() {
  MutexLock lock(recovery_mutex_);
  return std::exchange(control_arrived_, false);
}

int32_t KvoxService::ScanWithRetries(RecoveryPacer& pacer) {
  int32_t status = -1;
  for (int attempt = 0; attempt < kScanAttempts; ++attempt) {
    if (!pacer.Pause(kScanPause)) return -1;
    TakeControlArrival();
    status = initKvoBuffers(pacer);
    MutexLock lock(mutex_);
    if (ready_) break;
  }
  MutexLock lock(mutex_);
  const size_t tapouts = buffers_.tapouts.size();
  const size_t injects = buffers_.injects.size();
  LogInfo("Found %u tap-out buffer%s, %u inject buffer%s", static_cast<unsigned>(tapouts),
          PluralS(tapouts), static_cast<unsigned>(injects), PluralS(injects));
  return status;
}

int32_t KvoxService::initKvoBuffers(RecoveryPacer& pacer) {
  BufferTables gone;
  {
    MutexLock lock(mutex_);
    std::swap(gone, buffers_);
    ready_ = false;
  }
  gone.Drop();
  if (pacer.stopping()) return -1;
  pacer.ScanBegins();
  MutexLock lock(mutex_);
  const DeviceScan scan = environment_.scan(environment_.device_directory);
  AddBuffers(scan);
  return scan.any_tapout_path ? 0 : -1;
}

std::vector<std::shared_ptr<KvoxBuffer>> KvoxService::AddBuffers(const DeviceScan& scan) {
  std::vector<std::shared_ptr<KvoxBuffer>> added;
  const auto add = [&](const std::vector<DataDevice>& devices, bool is_tapout, BufferMap& buffers) {
    for (const DataDevice& device : devices) {
      if (buffers.contains(device.number)) continue;
      added.push_back(std::make_shared<KvoxBuffer>(device.name, device.path,
                                                   static_cast<uint32_t>(device.number), is_tapout,
                                                   buffer_environment_));
      buffers.emplace(device.number, added.back());
    }
  };
  add(scan.tapouts, true, buffers_.tapouts);
  add(scan.injects, false, buffers_.injects);
  ready_ = !buffers_.tapouts.empty() && !buffers_.injects.empty();
  return added;
}

void KvoxService::HandleInotifyEvent(const inotify_event* event) {
  const bool ours =
      event->len > 0 && std::strncmp(event->name, kDevicePrefix, sizeof kDevicePrefix - 1) == 0;
  if (!ours) return;
  if ((event->mask & IN_CREATE) != 0) {
    HandleArrival(event->name);
  } else if ((event->mask & IN_DELETE) != 0) {
    HandleDeparture(event->name);
  }
}

void KvoxService::HandleArrival(const char* name) {
  LogInfo("%s online\n", name);
  MutexLock lock(recovery_mutex_);
  if (std::strcmp(name, kControlDevice) == 0) control_arrived_ = true;
  if (recovery_) {
    recovery_->NoteArrival();
  } else {
    recovery_ = environment_.start_recovery([this](RecoveryPacer& pacer) { Recover(pacer); });
  }
}

/// The recovery is told to stop before it is waited for, and what it may be waiting for ends: so
/// the wait is short, and no lock is held meanwhile.
void KvoxService::HandleDeparture(const char* name) {
  LogInfo("%s offline\n", name);
  std::unique_ptr<Recovery> recovery;
  BufferTables known;
  BufferTables gone;
  {
    MutexLock lock(recovery_mutex_);
    recovery = std::move(recovery_);
    if (recovery) recovery->RequestStop();
  }
  {
    MutexLock lock(mutex_);
    ready_ = false;
    known = buffers_;
  }
  for (const BufferMap* map : {&known.tapouts, &known.injects}) {
    for (const auto& [number, buffer] : *map) buffer->AbandonOpening();
  }
  recovery.reset();
  {
    MutexLock lock(mutex_);
    std::swap(gone, buffers_);
    updateWakeLock(nullptr);
  }
  gone.Drop();
  known.Drop();  // what somebody else has taken out meanwhile
}

}  // namespace kvox
