// Executes the faults of nodes and devices when their time comes. Event loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "sim/devices/device_set.h"
#include "sim/event.h"
#include "sim/faults/fault_plan.h"
#include "sim/faults/fault_script.h"
#include "sim/output.h"

namespace kvox::sim {

class FaultRunner {
 public:
  /// `reset` resets the co-processor's state. The others outlive the runner.
  FaultRunner(event_base* base, FaultPlan& plan, DeviceSet& devices, Journal& journal,
              std::function<void()> reset);

  /// To be called after a fault was added to the plan.
  void Wake() { due_.AddIn(0); }
  /// Ends every fault and repairs what it did.
  void Clear();
  /// The same for faults of nodes only.
  void Restore();

 private:
  struct Running {
    uint64_t id;
    FaultGroup group;
    uint64_t begun_ns;
    std::vector<FaultStep> steps;
    size_t done = 0;  // steps

    uint64_t NextAt() const;
    bool Over() const;
  };

  void Run();
  void Do(const FaultStep& step);

  FaultPlan& plan_;
  DeviceSet& devices_;
  Journal& journal_;
  const std::function<void()> reset_;
  std::vector<Running> running_;
  Event due_;
};

}  // namespace kvox::sim
