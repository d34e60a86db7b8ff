// Goes through what one read of an inotify descriptor brought. Pure.
#pragma once

#include <sys/inotify.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kvox {

/// Every complete event, in order. The pointers lead into `bytes`, which is aligned for events.
std::vector<const inotify_event*> SplitInotifyEvents(std::span<const std::byte> bytes);

/// An event as the kernel would deliver it.
class InotifyEventBytes {
 public:
  InotifyEventBytes(uint32_t mask, std::string_view name);
  const inotify_event& event() const { return *reinterpret_cast<const inotify_event*>(&bytes_); }
  std::span<const std::byte> bytes() const;

 private:
  alignas(inotify_event) std::array<std::byte, sizeof(inotify_event) + 64> bytes_ = {};
};

/// Whether the event is about the file `name`, compared up to the event's own name length.
bool IsAbout(const inotify_event& event, const char* name);

}  // namespace kvox
