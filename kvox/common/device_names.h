// Names of the co-processor's nodes in the device directory. What a phone's device manager and
// policy say of them is in android/.
#pragma once

namespace kvox {

/// Only has to exist: tells that there is a co-processor.
inline constexpr char kMarkerDevice[] = "kvo";
inline constexpr char kControlDevice[] = "xdv-kvox_control";
/// Followed by the buffer's number.
inline constexpr char kTapOutPrefix[] = "xdv-kvox_tapout";
inline constexpr char kInjectPrefix[] = "xdv-kvox_inject";
/// What control and data devices have in common.
inline constexpr char kDevicePrefix[] = "xdv-kvox_";

}  // namespace kvox
