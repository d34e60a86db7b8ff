// Finds the co-processor's data devices, follows their departures and arrivals, and restores what
// clients had set up.
//
// A departure drops all buffers and starts a recovery, which ends with the next departure: a thread
// that waits for the first arrival, scans until there are devices of both kinds, restores
// everything, and then continues with devices that arrive later or do not open yet. Where devices
// of both kinds have stayed, it waits two seconds only: what left may have left for good.
//
// Restoring does not change the saved state, and each step uses what is saved at that moment, under
// the lock that commands take: a command that comes while it runs is neither lost nor overwritten.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "kvox/common/mutex.h"
#include "service/device_event.h"
#include "service/device_scan.h"
#include "service/inventory.h"
#include "service/io_switch.h"
#include "service/recovery_run.h"
#include "service/restore_plan.h"
#include "service/saved_state.h"
#include "service/tap_points.h"
#include "service/wiring.h"

namespace kvox {

/// The recovery's collaborators. All of them outlive it.
struct RecoveryLinks {
  std::string device_directory;
  std::function<DeviceScan(const std::string& directory)> scan;
  RecoveryRun::Starter start;
  BufferEnvironment buffers;
  Inventory& inventory;
  SavedState& saved;
  Wiring& wiring;
  TapPoints& taps;
  IoSwitch& io;
};

/// Any thread but an I/O thread.
class Recovery {
 public:
  explicit Recovery(RecoveryLinks links);
  /// Ends a running recovery and drops all buffers.
  ~Recovery();

  /// The first scan, on the calling thread.
  void ScanAtStart(RecoveryClock& clock);

  /// Event thread. A departure drops the buffers at once, and then waits for the recovery's current
  /// step.
  void HandleDeviceEvent(const DeviceEvent& event);

  /// For developers: drops the buffers and scans once; or only drops them.
  void Rescan();
  void DropBuffers();

 private:
  /// What a recovery still has to do.
  struct Unfinished {
    struct Retry {
      unsigned number = 0;  // of the next try
      RecoveryClock::TimePoint due;

      void TryLater(RecoveryClock::TimePoint now);
    };
    bool everything = true;                 // no pass has restored anything yet
    std::map<TapKey, Retry> taps;           // without a reply; the control device may come later
    std::map<std::string, Retry> openings;  // of buffers whose devices have not opened yet

    RecoveryClock::TimePoint NextRetry() const;
  };

  // On the recovery's thread.
  void RunAfterDeparture(RecoveryClock& clock);
  void Run(RecoveryClock& clock);
  bool ScanWithRetries(RecoveryClock& clock);
  bool Scan(RecoveryClock& clock);
  bool AddBuffers(RecoveryClock& clock, std::vector<BufferPtr>& added) EXCLUDES(scan_mutex_);
  void AddArrivals(RecoveryClock& clock, Unfinished& unfinished);
  void RestoreAll(const RecoveryClock& clock, Unfinished& unfinished);
  void Restore(const RecoveryClock& clock, const RestorePlan& plan, Unfinished& unfinished);
  void RestoreTaps(const RecoveryClock& clock, const std::set<TapKey>& keys,
                   Unfinished& unfinished);
  void RestoreBuffer(const RecoveryClock& clock, const std::string& name, Unfinished& unfinished);
  void RetryTaps(const RecoveryClock& clock, Unfinished& unfinished);
  void RetryOpenings(const RecoveryClock& clock, Unfinished& unfinished);
  void TryOpening(const RecoveryClock& clock, KvoxBuffer& buffer, unsigned number,
                  Unfinished& unfinished);

  bool IsDevice(std::string_view name) const;
  void HandleArrival(const std::string& name);
  void HandleControlOpened();
  void HandleRightsChanged();
  void HandleDeparture(const std::string& name);
  std::unique_ptr<RecoveryRun> StopRun();
  bool BothKindsExist() const;
  std::vector<BufferPtr> TakeBuffers() EXCLUDES(scan_mutex_);
  void Drop(const std::vector<BufferPtr>& buffers);
  bool TakeControlArrival() EXCLUDES(run_mutex_);
  bool TakeRightsChange() EXCLUDES(run_mutex_);

  const RecoveryLinks links_;

  /// Held from a scan until its buffers are in the inventory, so that no departure comes between.
  Mutex scan_mutex_;

  Mutex run_mutex_;  // held briefly: devices that leave and arrive are noted at once, whatever runs
  std::unique_ptr<RecoveryRun> run_ GUARDED_BY(run_mutex_);
  bool control_arrived_ GUARDED_BY(run_mutex_) = false;  // or opened, since the last scan
  bool rights_changed_ GUARDED_BY(run_mutex_) = false;   // since the last scan
};

}  // namespace kvox
