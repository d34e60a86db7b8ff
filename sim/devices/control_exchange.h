// From a command on the control device to the replies that go out: the control point answers, and
// faults have their way with what it says. Pure: the caller has the clock; one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "sim/coprocessor/control_point.h"
#include "sim/faults/fault_plan.h"
#include "sim/faults/reply_faults.h"

namespace kvox::sim {

class ControlExchange {
 public:
  /// Both outlive it.
  ControlExchange(ControlPoint& control, FaultPlan& plan) : control_(control), plan_(plan) {}

  /// Carries one record out, in its place, and tells what to send and when.
  std::vector<Reply> Take(std::span<std::byte> record, uint64_t now_ns);

 private:
  ControlPoint& control_;
  FaultPlan& plan_;
  std::vector<std::byte> last_;  // right reply
};

}  // namespace kvox::sim
