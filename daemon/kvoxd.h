// The daemon process: the singleton that owns the control channel, the wake lock and two threads.
// One serves binder calls, one runs the event loop for signals and device changes.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "daemon/control_channel.h"
#include "daemon/device_watch.h"
#include "kvox/common/log_ring.h"
#include "kvox/flight/flight_log.h"
#include "service/coprocessor_link.h"
#include "service/device_event.h"

namespace kvox {

class Kvoxd : public CoprocessorLink {
 public:
  /// Created by the first call. Any thread.
  static Kvoxd& Instance();

  /// Body of the binder thread: makes the service, publishes it and serves calls.
  void BinderThread(int);

  /// Body of the event thread: runs the event loop until SIGINT or SIGHUP.
  void EventThread(int);

  int32_t SendKvoxCommand(uint16_t opcode, CMD_HDR* record, size_t size) override;
  void UpdateWakeLock(bool needed) override;

 private:
  Kvoxd();
  ~Kvoxd() override;

  static void _setup_events(evutil_socket_t, short, void* daemon);
  static void _signal_handler(evutil_socket_t, short, void* daemon);
  static void _open_control_cb(evutil_socket_t, short, void* daemon);

  void StartFlightLog();
  void HandleDeviceEvent(const DeviceEvent& event);
  void OpenArrivedControl();
  void OpenControlLate();

  const std::string device_directory_;
  const std::string control_path_;
  ControlChannel control_;
  DeferredLog io_log_;
  flight::FlightLog flight_;
  std::thread sampler_;          // of the flight log
  bool wake_lock_held_ = false;  // callers of UpdateWakeLock take turns

  // The event thread's.
  event_base* event_base_ = nullptr;
  event* startup_event_ = nullptr;
  std::unique_ptr<DeviceWatch> devices_;
  event* open_control_event_ = nullptr;
  bool control_closed_ = false;  // it has arrived, and does not open yet
};

}  // namespace kvox
