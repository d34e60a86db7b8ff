// The exchanges with the co-processor about its tap points: listing, binding, switching, settings.
// What it accepts is saved, so that a recovery can repeat it.
//
// Exchanges take turns under the service mutex, which is held until the outcome is saved and
// logged: co-processor, memory and log agree on the order.
#pragma once

#include <functional>
#include <set>
#include <vector>

#include "kvox/common/mutex.h"
#include "service/coprocessor_link.h"
#include "service/inventory.h"
#include "service/report.h"
#include "service/saved_state.h"
#include "service/tap_point.h"
#include "service/wiring.h"

namespace kvox {

/// Any thread but an I/O thread. Every function may take the time of several exchanges.
class TapPoints {
 public:
  /// All outlive the object.
  TapPoints(CoprocessorLink& link, Inventory& inventory, SavedState& saved, Wiring& wiring)
      : link_(link), inventory_(inventory), saved_(saved), wiring_(wiring) {}

  /// Appends the tap points of a core. Returns 0, or -1 if an exchange failed or the list is
  /// endless; those found before stay.
  int32_t List(int core, std::vector<KvoxTapPointState>& taps);

  /// The cores whose list the co-processor refused last: it has no such cores.
  std::set<int> refused_cores() const;

  /// Returns 0, or the status of the exchange after logging it.
  int32_t Info(const TapArguments& tap, KvoxTapPointState& state);

  // Complete commands, from request line to outcome.

  void Enable(const TapArguments& tap, bool enable, Report& report);
  void SetBlockLength(const TapArguments& tap, uint32_t frames, Report& report);
  void SetJitterBuffer(const TapArguments& tap, uint32_t size, Report& report);
  /// -1 stands for no buffer. Then passes the tap point's format on to the tap-out buffer.
  void Bind(const TapArguments& tap, int tapout, int inject, Report& report);

  /// Whether a client has set it up. A tap point that is forgotten is not restored any more.
  bool IsSaved(const TapArguments& tap) const;
  void Forget(const TapArguments& tap);

  enum class Restored { kDone, kRefused, kNoReply };

  /// After a departure: brings the tap point to its saved state. Each step uses what is saved then,
  /// so that a client's newer command is kept. Ends at the first step that fails.
  Restored Restore(TapKey key, const std::function<bool()>& stopping);

  /// Only binds it as saved.
  Restored RestoreBinding(TapKey key);

 private:
  /// A binding in progress.
  struct Binding {
    Outcome outcome = {};
    BufferPtr tapout = nullptr;  // gets the format; null when there is none to pass on
    KvoxTapFormat format = {};
  };

  /// `replied` is set on failure: whether the co-processor did.
  int32_t Query(const TapArguments& tap, KvoxTapPointState& state, bool* replied = nullptr);
  void NoteCore(uint8_t core, bool refused) EXCLUDES(cores_mutex_);
  template <typename Record>
  Outcome Send(const char* name, uint16_t opcode, Record& record) REQUIRES(service_mutex_);
  Outcome SendEnable(const TapArguments& tap, bool enable) REQUIRES(service_mutex_);
  Outcome SendBlockLength(const TapArguments& tap, uint32_t frames) REQUIRES(service_mutex_);
  Outcome SendJitterBuffer(const TapArguments& tap, uint32_t size) REQUIRES(service_mutex_);
  enum class Saving { kYes, kNo };
  Binding SendBinding(const TapArguments& tap, int tapout, int inject, Saving saving)
      REQUIRES(service_mutex_);
  void FinishBinding(Binding binding, Report& report) EXCLUDES(service_mutex_);
  /// What follows the binding, unless it is done. A client that binds a tap whose own binding could
  /// not be restored gets the tap's other settings back with it.
  Restored RestoreRest(TapKey key) REQUIRES(service_mutex_);
  Restored RestoreSettings(const KvoxTapPointState& saved) REQUIRES(service_mutex_);

  CoprocessorLink& link_;
  Inventory& inventory_;
  SavedState& saved_;
  Wiring& wiring_;
  Mutex service_mutex_;
  std::set<TapKey> half_restored_ GUARDED_BY(service_mutex_);  // only some of their settings

  mutable Mutex cores_mutex_;  // a leaf lock
  std::set<int> refused_cores_ GUARDED_BY(cores_mutex_);
};

}  // namespace kvox
