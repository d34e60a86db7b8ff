// What a fault of nodes or devices does, step by step. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/faults/fault.h"

namespace kvox::sim {

/// What can be wrong with a device. It is sound when nobody holds anything against it.
enum class DeviceHold {
  kAway,     // its node is not there
  kBroken,   // something stands under its name that can be opened, but not read
  kClosed,   // the simulator has its end closed
  kStalled,  // the simulator does not read
};
inline constexpr size_t kDeviceHolds = 4;

struct FaultStep {
  enum class Action {
    kHold,     // something is wrong with the device from now on
    kRelease,  // it is no longer
    kReset,    // the co-processor forgets what it was told
  };
  uint64_t at_ns;  // since the fault began
  Action action;
  size_t device = 0;  // its place in FaultTargets::devices
  DeviceHold hold = DeviceHold::kAway;
};

/// The steps in the order of their times. A hold without a release lasts until somebody ends it.
std::vector<FaultStep> MakeScript(const FaultSpec& spec, const std::vector<std::string>& devices);

}  // namespace kvox::sim
