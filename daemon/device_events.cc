#include "daemon/device_events.h"

#include <sys/inotify.h>

#include "kvox/common/device_names.h"

namespace kvox {

namespace {

constexpr uint32_t kDirectoryGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

struct Meaning {
  uint32_t mask;
  DeviceEvent::Kind kind;
};
constexpr Meaning kMeanings[] = {{IN_CREATE, DeviceEvent::Kind::kArrived},
                                 {IN_DELETE, DeviceEvent::Kind::kLeft},
                                 {IN_ATTRIB, DeviceEvent::Kind::kRightsChanged}};

}  // namespace

std::vector<DeviceEvent> ReadDeviceEvents(std::span<const std::byte> bytes, int watch) {
  std::vector<DeviceEvent> events;
  bool gone = false;
  while (bytes.size() >= sizeof(inotify_event)) {
    const auto* const event = reinterpret_cast<const inotify_event*>(bytes.data());
    const size_t size = sizeof(inotify_event) + event->len;
    if (size > bytes.size()) break;
    bytes = bytes.subspan(size);
    if ((event->mask & IN_Q_OVERFLOW) != 0) {
      events.push_back({DeviceEvent::Kind::kAllGone, kControlDevice});
      events.push_back({DeviceEvent::Kind::kArrived, kControlDevice});
    } else if (event->wd != watch || gone) {
      continue;
    } else if ((event->mask & kDirectoryGone) != 0) {
      gone = true;
      events.push_back({DeviceEvent::Kind::kDirectoryGone, kControlDevice});
    } else if (event->len > 0) {
      for (const Meaning& meaning : kMeanings) {
        if ((event->mask & meaning.mask) != 0) events.push_back({meaning.kind, event->name});
      }
    }
  }
  return events;
}

}  // namespace kvox
