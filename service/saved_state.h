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

  bool Is(const KvoxBuffer& buffer) const {
    return tapout == buffer.is_tapout() && number == static_cast<int32_t>(buffer.index());
  }
};

/// The three tables, in the order in which they are restored.
struct SavedTables {
  TapMap taps;
  std::map<FourCc, ConnectionState> connections;  // by processor, also of deleted ones
  std::map<std::string, RunningBuffer> running;   // by the buffer's name
};

/// Any thread.
class SavedState {
 public:
  SavedTables Copy() const;

  /// Changes the saved state of a tap point, which is initially unset. Callers hold the lock that
  /// serialises exchanges, so that saved state and co-processor agree.
  void ChangeTap(const TapArguments& tap, const std::function<void(KvoxTapPointState&)>& change);
  /// Forgets the tap point if it is off and unbound.
  void ForgetTapIfIdle(const TapArguments& tap);
  std::optional<KvoxTapPointState> FindTap(TapKey key) const;
  /// The first tap point, in key order, that is bound to the buffer.
  std::optional<KvoxTapPointState> TapBoundTo(const KvoxBuffer& buffer) const;

  /// A connection to no buffer is forgotten.
  void SaveConnection(FourCc processor, const ConnectionState& connection);
  ConnectionState FindConnection(FourCc processor) const;
  /// Connections deliberately outlive their processors. When there are kMaxProcessors of them,
  /// those of processors other than `existing` are forgotten.
  void LimitConnections(const std::vector<ProcessorPtr>& existing);

  /// As one change: of two callers the last one's wish holds for every buffer.
  void SaveRunning(const std::vector<BufferPtr>& buffers, bool running);
  bool IsRunning(const KvoxBuffer& buffer) const;
  std::optional<RunningBuffer> FindRunning(const std::string& name) const;
  /// Forgets running buffers for which `forget` is true.
  void ForgetRunning(const std::function<bool(const RunningBuffer&)>& forget);

 private:
  mutable Mutex mutex_;  // the table lock, a leaf lock
  SavedTables tables_ GUARDED_BY(mutex_);
};

}  // namespace kvox
