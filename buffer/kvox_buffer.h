// One data device of the co-processor. A tap-out buffer reads audio and hands every block to the
// processors on its routes, on its own I/O thread; an inject buffer has an open device that routes
// lead to, and no thread. The wiring decides which processors read and write it.
//
// Switching runs without the buffer's mutex: one thread at a time switches a buffer, so a buffer
// whose device takes seconds to open can still be queried and switched off.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "buffer/device_io.h"
#include "buffer/inject_port.h"
#include "buffer/route_table.h"
#include "buffer/rx_format.h"
#include "buffer/tap_reader.h"
#include "buffer/wav_capture.h"
#include "kvox/common/log.h"
#include "kvox/common/mutex.h"
#include "kvox/common/tap_format.h"
#include "kvox/common/thread_group.h"
#include "kvox/common/wake_event.h"
#include "kvox/flight/flight_log.h"

namespace kvox {

class KvoxBuffer;

/// What buffers ask of the wiring. Any thread; waits for no exchange with the co-processor.
class BufferWiring {
 public:
  virtual ~BufferWiring() = default;

  /// Processors that read the tap-out buffer, or write the inject buffer.
  virtual unsigned CountProcessors(const KvoxBuffer& buffer) = 0;

  /// The port of an inject buffer has changed. Returns when no packet uses the old one any more.
  virtual void PortChanged(const KvoxBuffer& inject) = 0;
};

/// Shared by all buffers. All of it outlives them.
struct BufferEnvironment {
  DeviceIo& io;
  LogTarget& io_log;  // for I/O threads; never waits
  BufferWiring& wiring;
  ThreadGroup& capture_threads;
  flight::FlightLog& flight;
};

/// Status results are 0 for success and -1 for failure. Any thread but an I/O thread may call.
class KvoxBuffer {
 public:
  KvoxBuffer(std::string name, std::string device_path, uint32_t index, bool is_tapout,
             const BufferEnvironment& environment);
  ~KvoxBuffer();
  KvoxBuffer(const KvoxBuffer&) = delete;
  KvoxBuffer& operator=(const KvoxBuffer&) = delete;

  const std::string& name() const { return name_; }
  bool is_tapout() const { return is_tapout_; }
  uint32_t index() const { return index_; }
  bool IsEnabled() const { return enabled_.load(std::memory_order_relaxed); }

  /// Whether it is enabled, but its I/O thread has ended: the device could not be reopened.
  /// Enabling it again starts it anew.
  bool gave_up() const { return IsEnabled() && gave_up_.load(std::memory_order_relaxed); }

  /// Whether the buffer is still to be enabled when its turn to switch comes. Takes leaf locks
  /// only.
  using StillWanted = std::function<bool()>;

  /// Opens or closes the device and starts or ends the I/O thread. Opening is tried five times, a
  /// second apart; disabling or dropping the buffer ends that.
  int32_t Enable(bool enable, const StillWanted& still_wanted = nullptr);

  enum class Try {
    kOn,
    kAgain,   // the device did not open; the next try is due after the pause
    kBusy,    // another thread is trying; the same try is due after the pause
    kFailed,  // permanently
  };
  static constexpr auto kOpenRetryPause = std::chrono::seconds(1);

  /// One of the tries that Enable(true) makes, for callers that have more to do than to wait for
  /// the next one. The first is number 0.
  Try TryEnable(unsigned number, const StillWanted& still_wanted);

  /// Ends an Enable that waits for its device; the buffer cannot be enabled any more.
  void AbandonOpening();

  /// Switches the buffer off permanently. False if that has been done before.
  bool Drop();
  bool dropped() const { return dropped_.load(); }

  /// Whether its device is leaving or has left: it cannot be enabled any more.
  bool leaving() const { return abandoned_.load(); }

  /// Tap-out: replaces the routes. Callers take turns.
  void SetRoutes(std::vector<Route> routes);

  /// Tap-out: returns when no packet uses replaced routes any more. See RoutePublisher.
  void WaitForGracePeriod() { publisher_.WaitForGracePeriod(); }

  /// Tap-out: sets the format of the arriving audio, until packets come that have another.
  void SetRxFormat(const KvoxTapFormat& format);
  /// All zero while no audio has arrived.
  KvoxTapFormat RxFormat() const { return rx_format_.Get().format; }

  /// Inject: the open device; null while the buffer is off.
  std::shared_ptr<InjectPort> port() const;

  /// Recording of the packets that pass, whether the buffer is enabled or not yet.
  WavCapture& capture() { return *capture_; }

  /// Logs the work area (64 KiB) as 2048 lines of words. `source` is the tap-out buffer whose
  /// packets reach this inject buffer; null for none. The wiring does not change while it runs.
  void DumpBuffer(KvoxBuffer* source);

 private:
  enum class Switch { kGo, kAlreadyThere, kBusy, kRefused };

  Switch BeginSwitching(bool enable, const StillWanted& still_wanted);
  Switch BeginTry(unsigned number, const StillWanted& still_wanted);
  Switch BeginLocked(bool enable) REQUIRES(mutex_);
  void EndSwitching();
  bool EnableDevice(int fd);
  int OpenWithRetries();
  int OpenDevice() const;
  void ReportOpenFailed(int status, int error) const;
  void Note(const char* what, int error) const;
  bool AnotherTry(unsigned number, int fd, int error) const;
  bool WaitBeforeRetry();
  void EndReader();
  void DisableDevice();
  void SwapPort(std::shared_ptr<InjectPort> port);
  void PublishRoutes(std::vector<Route> routes) REQUIRES(routes_mutex_);
  bool CopyWorkArea(InjectPort* port, std::vector<std::byte>& area);

  const std::string name_;
  const std::string device_path_;
  const uint32_t index_;
  const bool is_tapout_;
  const BufferEnvironment environment_;
  const std::shared_ptr<WavCapture> capture_;
  WakeEvent wake_;
  RxFormatCell rx_format_;
  RoutePublisher publisher_;
  std::atomic<bool> enabled_ = false;
  std::atomic<bool> gave_up_ = false;
  std::atomic<bool> dropped_ = false;

  Mutex mutex_;
  CondVar changed_;
  bool switching_ GUARDED_BY(mutex_) = false;    // one thread has reader_ to itself
  bool opening_ GUARDED_BY(mutex_) = false;      // and that may take seconds
  int disables_waiting_ GUARDED_BY(mutex_) = 0;  // for their turn to switch
  std::atomic<bool> abandoned_ = false;          // cannot be enabled; changes under the mutex

  std::unique_ptr<TapReader> reader_;          // belongs to the thread that is switching
  flight::StreamSlot* stream_slot_ = nullptr;  // the reader's

  Mutex routes_mutex_;  // a leaf lock: one publication at a time

  mutable Mutex port_mutex_;  // a leaf lock
  std::shared_ptr<InjectPort> port_ GUARDED_BY(port_mutex_);
};

}  // namespace kvox
