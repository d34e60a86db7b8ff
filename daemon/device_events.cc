#include "daemon/device_events.h"

#include <algorithm>
#include <cstring>

namespace kvox {

std::vector<const inotify_event*> SplitInotifyEvents(std::span<const std::byte> bytes) {
  std::vector<const inotify_event*> events;
  while (bytes.size() >= sizeof(inotify_event)) {
    const auto* const event = reinterpret_cast<const inotify_event*>(bytes.data());
    const size_t size = sizeof(inotify_event) + event->len;
    if (size > bytes.size()) break;
    events.push_back(event);
    bytes = bytes.subspan(size);
  }
  return events;
}

InotifyEventBytes::InotifyEventBytes(uint32_t mask, std::string_view name) {
  inotify_event header{};
  header.mask = mask;
  header.len = static_cast<uint32_t>(bytes_.size() - sizeof header);
  std::memcpy(bytes_.data(), &header, sizeof header);
  std::memcpy(bytes_.data() + sizeof header, name.data(),
              std::min<size_t>(name.size(), header.len - 1));
}

std::span<const std::byte> InotifyEventBytes::bytes() const {
  return bytes_;
}

bool IsAbout(const inotify_event& event, const char* name) {
  return event.len > 0 && std::strncmp(event.name, name, event.len) == 0;
}

}  // namespace kvox
