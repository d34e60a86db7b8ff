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
  if (ScanWithRetries(pacer) != 0) return;
  PlanEverything(plan);
  Restore(pacer, plan);
}

/// First everything, then what devices that come later complete. What the co-processor refused is
/// tried again once its control device has come.
void KvoxService::Recover(RecoveryPacer& pacer) {
  bool restored = false;
  RestorePlan last;
  if (ScanWithRetries(pacer) == 0) {
    PlanEverything(last);
    Restore(pacer, last);
    restored = true;
  }
  while (pacer.WaitForArrivals()) {
    RestorePlan plan;
    {
      MutexLock lock(mutex_);
      if (pacer.stopping()) return;
      pacer.ScanBegins();
      const DeviceScan scan = ScanDataDevices(environment_.device_directory);
      if (!scan.any_tapout_path) continue;
      for (const auto& added : AddBuffers(scan)) PlanFor(*added, plan);
      if (std::exchange(control_arrived_, false)) plan.taps.merge(last.refused_taps);
    }
    if (!restored) PlanEverything(plan);
    Restore(pacer, plan);
    restored = true;
    plan.refused_taps.merge(last.refused_taps);
    last = std::move(plan);
  }
}

int32_t KvoxService::ScanWithRetries(RecoveryPacer& pacer) {
  int32_t status = -1;
  for (int attempt = 0; attempt < kScanAttempts; ++attempt) {
    if (!pacer.Pause(kScanPause)) return -1;
    {
      MutexLock lock(mutex_);
      control_arrived_ = false;
    }
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
  MutexLock lock(mutex_);
  if (pacer.stopping()) return -1;
  pacer.ScanBegins();
  const DeviceScan scan = ScanDataDevices(environment_.device_directory);
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
  MutexLock lock(mutex_);
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
    MutexLock lock(mutex_);
    ready_ = false;
    recovery = std::move(recovery_);
    if (recovery) recovery->RequestStop();
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
