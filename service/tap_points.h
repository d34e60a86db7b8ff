// The exchanges with the co-processor about its tap points: listing, binding, switching, settings.
// What it accepts is saved, so that a recovery can repeat it.
//
// Exchanges take turns under the service mutex, which is held until the outcome is saved and
// logged: co-processor, memory and log agree on the order.
#pragma once

#include <functional>
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

  /// Returns 0, or the status of the exchange after logging it.
  int32_t Info(const TapArguments& tap, KvoxTapPointState& state);

  // Complete commands, from request line to outcome.

  void Enable(const TapArguments& tap, bool enable, Report& report);
  void SetBlockLength(const TapArguments& tap, uint32_t frames, Report& report);
  void SetJitterBuffer(const TapArguments& tap, uint32_t size, Report& report);
  /// -1 stands for no buffer. Then passes the tap point's format on to the tap-out buffer.
  void Bind(const TapArguments& tap, int tapout, int inject, Report& report);

  /// After a departure: brings the tap point to its saved state. Each step uses what is saved then,
  /// so that a client's newer command is kept. False if the co-processor refused any of it.
  bool Restore(TapKey key, const std::function<bool()>& stopping);

 private:
  /// A binding in progress.
  struct Binding {
    Outcome outcome = {};
    BufferPtr tapout = nullptr;  // gets the format; null when there is none to pass on
    KvoxTapFormat format = {};
  };

  int32_t Query(const TapArguments& tap, KvoxTapPointState& state);
  Outcome SendEnable(const TapArguments& tap, bool enable) REQUIRES(service_mutex_);
  Outcome SendBlockLength(const TapArguments& tap, uint32_t frames) REQUIRES(service_mutex_);
  Outcome SendJitterBuffer(const TapArguments& tap, uint32_t size) REQUIRES(service_mutex_);
  enum class Saving { kYes, kNo };
  Binding SendBinding(const TapArguments& tap, int tapout, int inject, Saving saving)
      REQUIRES(service_mutex_);
  void SaveBinding(const TapArguments& tap, int tapout, int inject) REQUIRES(service_mutex_);
  void FinishBinding(Binding binding, Report& report) EXCLUDES(service_mutex_);
  bool RestoreSettings(const KvoxTapPointState& saved) REQUIRES(service_mutex_);

  CoprocessorLink& link_;
  Inventory& inventory_;
  SavedState& saved_;
  Wiring& wiring_;
  Mutex service_mutex_;
};

}  // namespace kvox
