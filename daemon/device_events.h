// Converts the kernel's inotify events of the device directory into device events.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "service/device_event.h"

namespace kvox {

/// The events in the bytes of one read of an inotify descriptor, in order, except those of watches
/// other than `watch`. `bytes` is aligned for inotify_event. An overflow of the kernel's queue
/// becomes a departure of everything and the arrival of the control device, which starts a scan for
/// the rest.
std::vector<DeviceEvent> ReadDeviceEvents(std::span<const std::byte> bytes, int watch);

}  // namespace kvox
