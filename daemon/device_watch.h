// Watches the device directory, also when it is not there: then it looks for it once a second.
#pragma once

#include <event2/event.h>

#include <functional>
#include <string>

#include "kvox/common/unique_fd.h"
#include "service/device_event.h"

namespace kvox {

/// Event thread, after the event base was made and as long as it lives.
class DeviceWatch {
 public:
  using Handler = std::function<void(const DeviceEvent&)>;

  /// Gives each event to `handler`, on the event thread. When the directory has returned, what is
  /// in it arrives.
  DeviceWatch(event_base* base, std::string directory, Handler handler);
  ~DeviceWatch();
  DeviceWatch(const DeviceWatch&) = delete;
  DeviceWatch& operator=(const DeviceWatch&) = delete;

 private:
  static void OnReadable(evutil_socket_t, short, void* self);
  static void OnTimer(evutil_socket_t, short, void* self);

  bool AddWatch();
  void ReadEvents();
  void LoseDirectory();
  void ReportPresent();

  const std::string directory_;
  const Handler handler_;
  const UniqueFd inotify_;
  int watch_ = -1;
  event* readable_ = nullptr;
  event* timer_ = nullptr;  // pending while there is no directory
};

}  // namespace kvox
