// The device of an enabled tap-out buffer, as its I/O thread uses it: reads, with their waits,
// pauses and reopening, and every other wait of that thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "buffer/device_io.h"
#include "buffer/io_thread_call.h"
#include "buffer/route_table.h"
#include "kvox/common/wake_event.h"
#include "processors/block.h"

namespace kvox {

/// The device's collaborators. All of them outlive it.
struct TapDeviceLinks {
  const std::string& name;  // of the buffer, for log lines
  const std::string& path;
  DeviceIo& io;
  WakeEvent& wake;
  const RoutePublisher& routes;  // waits inside a packet end when these change
  IoThreadCall& calls;           // served while the thread waits for the device
};

/// Belongs to the I/O thread; RT throughout, except RequestStop.
class TapDevice final : public IoWaiter {
 public:
  enum class Outcome {
    kBytes,
    kError,     // a read failed: resync; what is assembled stays
    kReopened,  // after ten errors in a row: start over
    kEnd,       // asked to stop, or the device cannot be reopened
  };

  /// Takes over `fd`.
  TapDevice(const TapDeviceLinks& links, int fd);
  ~TapDevice() override;
  TapDevice(const TapDevice&) = delete;
  TapDevice& operator=(const TapDevice&) = delete;

  /// Waits for bytes and reads them into `area`; `size` is how many. Logs errors, and every 4 s
  /// that nothing comes.
  Outcome Read(std::span<std::byte> area, size_t& size);

  /// A packet is complete or dropped: resets the counts of waits and errors.
  void StartOver();

  /// Waits 10 ms.
  void Pause() { Pause(kPauseMs); }

  bool stopping() const { return stopping_.load(std::memory_order_relaxed); }

  /// Ends every wait, now and later. Any thread.
  void RequestStop();

  bool WaitWritable(int fd, uint64_t deadline_ns) override;
  bool WaitReadable(int fd, uint64_t deadline_ns) override;
  uint64_t NowNs() override { return last_ns_ = links_.io.NowNs(); }

  /// When the clock was read last, by the reader or by a processor that waits with this object.
  uint64_t last_ns() const { return last_ns_; }

 private:
  static constexpr int kPauseMs = 10;

  void SetHandle(int fd);
  DeviceIo::Ready WaitForInput();
  bool WaitFor(int fd, DeviceIo::Direction direction, uint64_t deadline_ns);
  Outcome HandleError(int error, size_t requested);
  Outcome Reopen();
  void Pause(int ms);
  void OnWake();

  const TapDeviceLinks links_;
  const char* const name_;
  std::atomic<bool> stopping_ = false;
  int handle_ = -1;
  int watch_ = -1;  // of handle_ and the wake event; -1 if not possible
  uint64_t last_ns_ = 0;
  uint32_t waits_ = 0;
  uint32_t read_errors_ = 0;
  uint32_t wakes_in_vain_ = 0;  // in a row
};

}  // namespace kvox
