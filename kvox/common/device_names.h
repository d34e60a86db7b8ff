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
/// What is left is the buffer's name: "tapout" or "inject", and its number.
inline constexpr const char* kTapOutBufferPrefix = kTapOutPrefix + sizeof(kDevicePrefix) - 1;
inline constexpr const char* kInjectBufferPrefix = kInjectPrefix + sizeof(kDevicePrefix) - 1;

}  // namespace kvox
