// The steps of a fault of nodes or devices.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/faults/fault.h"

namespace kvox::sim {

/// What can be wrong with a device.
enum class Impairment {
  kRemoved,     // its node is not there
  kUnreadable,  // it can be opened, but not read
  kClosed,      // the simulator has its end closed
  kStalled,     // the simulator does not read
};
inline constexpr size_t kImpairments = 4;

struct FaultStep {
  enum class Action {
    kImpair,
    kRepair,
    kReset,  // resets the co-processor's state
  };
  uint64_t at_ns;  // since the fault began
  Action action;
  size_t device = 0;  // index in FaultTargets::devices
  Impairment impairment = Impairment::kRemoved;
};

/// The steps by their times. What no step repairs stays until `clear` or `restore`.
std::vector<FaultStep> MakeScript(const FaultConfig& config,
                                  const std::vector<std::string>& devices);

}  // namespace kvox::sim
