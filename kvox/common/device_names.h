// Names of the co-processor's nodes in the device directory. A phone's device manager and policy
// have theirs in android/.
#pragma once

namespace kvox {

/// Exists while there is a co-processor; never opened.
inline constexpr char kMarkerDevice[] = "kvo";
inline constexpr char kControlDevice[] = "xdv-kvox_control";
/// Followed by the buffer's number.
inline constexpr char kTapOutPrefix[] = "xdv-kvox_tapout";
inline constexpr char kInjectPrefix[] = "xdv-kvox_inject";
/// Common prefix of control and data devices.
inline constexpr char kDevicePrefix[] = "xdv-kvox_";

}  // namespace kvox
