// Switching buffers on and off, and the wake lock that goes with it.
#pragma once

#include <vector>

#include "kvox/common/mutex.h"
#include "service/coprocessor_link.h"
#include "service/inventory.h"
#include "service/report.h"
#include "service/saved_state.h"
#include "service/wiring.h"

namespace kvox {

/// Stands for every buffer where a command takes a number.
inline constexpr int kAllBuffers = -1;

/// Any thread but an I/O thread.
class IoSwitch {
 public:
  /// All outlive the object.
  IoSwitch(CoprocessorLink& link, Inventory& inventory, SavedState& saved, Wiring& wiring)
      : link_(link), inventory_(inventory), saved_(saved), wiring_(wiring) {}

  /// The commands StartIo and StopIo. May take the time that five tries to open a device take.
  void Switch(bool enable, int tapout, Report& report);

  /// Brings the buffer to its saved state; the last step of everybody who switches a buffer or
  /// saves its state. So commands and a recovery that switch the same buffer at the same time leave
  /// it as the state saved last says, which is also what the next recovery goes by.
  void SwitchAsSaved(const KvoxBuffer& buffer);

  /// Holds the wake lock while a tap-out buffer is on: audio between host and co-processor keeps
  /// the host awake. Decides afresh each time; with a report, adds the line that tells the counts.
  void UpdateWakeLock(Report* report = nullptr);

  /// All buffers, tap-outs first; or one tap-out and the inject buffers that its processors write.
  std::vector<BufferPtr> BuffersFor(int tapout) const;

 private:
  void ForgetAbsent(int tapout);

  CoprocessorLink& link_;
  Inventory& inventory_;
  SavedState& saved_;
  Wiring& wiring_;
  Mutex wake_lock_mutex_;  // from counting to switching
};

}  // namespace kvox
