// Switches buffers on and off, and the wake lock with them.
#pragma once

#include <map>
#include <string>
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

  /// The commands StartIo and StopIo. A device that does not open takes four seconds. A buffer that
  /// is named, and those its processors write, are also switched when they come later.
  void Switch(bool enable, int tapout, Report& report);

  /// Brings the buffer to its saved state. The last step of every function that switches a buffer
  /// or saves its state: commands and a recovery that switch a buffer at the same time then leave
  /// it in the state that was saved last, which is also what the next recovery restores.
  void SwitchAsSaved(const KvoxBuffer& buffer);

  /// Holds the wake lock while a tap-out buffer is on: audio between host and co-processor keeps
  /// the host awake. Recounts each time; adds a line with the counts to a report.
  void UpdateWakeLock(Report* report = nullptr);

  /// All buffers, tap-outs first; or one tap-out and the inject buffers that its processors write.
  std::vector<BufferPtr> BuffersFor(int tapout) const;

 private:
  Outcome SwitchNamed(bool enable, const NamedBuffer& named, uint64_t start);
  static Outcome Failure(const NamedBuffer& named, bool enable, int32_t status);
  std::vector<NamedBuffer> NamedBy(int tapout) const;

  CoprocessorLink& link_;
  Inventory& inventory_;
  SavedState& saved_;
  Wiring& wiring_;
  Mutex wake_lock_mutex_;  // from counting to switching
};

}  // namespace kvox
