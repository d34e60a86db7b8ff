// The daemon process: the singleton that owns the control channel, the wake lock and two threads.
// One serves binder calls, one runs the event loop for signals and device changes.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <string>

#include "daemon/control_channel.h"
#include "kvox/common/log_ring.h"
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
  static void _inotify_read_event_cb(evutil_socket_t, short, void* daemon);

  void WatchDevices();
  void HandleDeviceEvent(const DeviceEvent& event);

  const std::string device_directory_;
  const std::string control_path_;
  ControlChannel control_;
  DeferredLog io_log_;
  bool wake_lock_held_ = false;  // callers of UpdateWakeLock take turns

  // The event thread's.
  event_base* event_base_ = nullptr;
  event* startup_event_ = nullptr;
  int inotify_fd_ = -1;
  event* inotify_event_ = nullptr;
};

}  // namespace kvox
