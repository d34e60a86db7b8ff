// What clients have set up, whether its devices exist or not: settings of tap points, connections
// of processors, and running buffers. It survives the co-processor and is what a recovery restores.
// Its lock is held only for a look-up, a copy or an insertion.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kvox/common/four_cc.h"
#include "kvox/common/mutex.h"
#include "service/inventory.h"
#include "service/tap_point.h"

namespace kvox {

/// Which buffers a processor is connected to; -1 for none.
struct ConnectionState {
  int32_t tapout_buffer = -1;
  int32_t inject_buffer = -1;
};

/// A buffer that clients have started. Identified by its number: a device that comes back may spell
/// it differently ("1", "01").
struct RunningBuffer {
  int32_t number;
  bool tapout;
  uint64_t start = 0;     // the command that has started it last
  bool confirmed = true;  // false while that command is at work and it did not run before

  bool Is(const KvoxBuffer& buffer) const {
    return tapout == buffer.is_tapout() && number == static_cast<int32_t>(buffer.index());
  }
  bool IsSame(const RunningBuffer& other) const {
    return tapout == other.tapout && number == other.number;
  }
};

/// A buffer that a StartIo or StopIo means.
struct NamedBuffer {
  std::string name;
  RunningBuffer running;
  bool present;            // a device, when the command came
  bool remembered = true;  // false if it is absent, and too many others are to be started
};

/// The three tables, in the order in which they are restored.
struct SavedTables {
  TapMap taps;
  std::map<FourCc, ConnectionState> connections;  // by processor, also of deleted ones
  std::map<std::string, RunningBuffer> running;   // by the buffer's name

  std::map<TapKey, uint64_t> bound;  // taps in the order in which they were bound
};

/// Any thread.
class SavedState {
 public:
  SavedTables Copy() const;

  /// Changes the saved state of a tap point, which is initially unset. Callers hold the lock that
  /// serialises exchanges, so that saved state and co-processor agree.
  void ChangeTap(const TapArguments& tap, const std::function<void(KvoxTapPointState&)>& change);
  /// Also remembers that no other tap point has been bound since.
  void BindTap(const TapArguments& tap, uint8_t tapout, uint8_t inject);
  /// Forgets the tap point if it is off and unbound.
  void ForgetTapIfIdle(const TapArguments& tap);
  void ForgetTap(const TapArguments& tap);
  std::optional<KvoxTapPointState> FindTap(TapKey key) const;
  /// The first tap point, in key order, that is bound to the buffer.
  std::optional<KvoxTapPointState> TapBoundTo(const KvoxBuffer& buffer) const;

  /// Other processors lose their connections to the same inject buffer; returns these. A connection
  /// to no buffer is forgotten.
  std::vector<FourCc> SaveConnection(FourCc processor, const ConnectionState& connection);
  ConnectionState FindConnection(FourCc processor) const;
  /// Connections deliberately outlive their processors. When there are kMaxProcessors of them,
  /// those of processors other than `existing` are forgotten.
  void LimitConnections(const std::vector<ProcessorPtr>& existing);

  /// Saves, as one change, that these buffers are to run, whether they exist or not. Sets
  /// `remembered`. Returns the number of this start.
  uint64_t SaveStart(std::vector<NamedBuffer>& buffers);
  /// Start `start` has switched the buffer on; or has failed: then what it saved is void, unless
  /// the buffer was to run before or somebody has started it since.
  void ConfirmStart(const KvoxBuffer& buffer, uint64_t start, bool started);
  bool IsRunning(const KvoxBuffer& buffer) const;
  std::optional<RunningBuffer> FindRunning(const std::string& name) const;
  /// Saves, as one change, that the buffers for which `stops` is true are not to run.
  void SaveStop(const std::function<bool(const RunningBuffer&)>& stops);

 private:
  KvoxTapPointState& TapLocked(const TapArguments& tap) REQUIRES(mutex_);

  mutable Mutex mutex_;  // the table lock, a leaf lock
  SavedTables tables_ GUARDED_BY(mutex_);
  uint64_t bindings_ GUARDED_BY(mutex_) = 0;
  uint64_t starts_ GUARDED_BY(mutex_) = 0;
};

}  // namespace kvox
