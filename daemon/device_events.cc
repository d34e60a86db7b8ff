#include "daemon/device_events.h"

#include <sys/inotify.h>

#include "kvox/common/device_names.h"

namespace kvox {

std::vector<DeviceEvent> ReadDeviceEvents(std::span<const std::byte> bytes) {
  std::vector<DeviceEvent> events;
  while (bytes.size() >= sizeof(inotify_event)) {
    const auto* const event = reinterpret_cast<const inotify_event*>(bytes.data());
    const size_t size = sizeof(inotify_event) + event->len;
    if (size > bytes.size()) break;
    bytes = bytes.subspan(size);
    if ((event->mask & IN_Q_OVERFLOW) != 0) {
      events.push_back({DeviceEvent::Kind::kAllGone, kControlDevice});
      events.push_back({DeviceEvent::Kind::kArrived, kControlDevice});
    } else if (event->len > 0 && (event->mask & (IN_CREATE | IN_DELETE)) != 0) {
      const bool arrived = (event->mask & IN_CREATE) != 0;
      events.push_back(
          {arrived ? DeviceEvent::Kind::kArrived : DeviceEvent::Kind::kLeft, event->name});
    }
  }
  return events;
}

}  // namespace kvox
