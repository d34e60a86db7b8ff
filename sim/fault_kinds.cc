#include <algorithm>
#include <array>

#include "sim/fault_spec.h"

namespace kvox::sim {
namespace {

using enum FaultKind;
using enum FaultGroup;

constexpr std::array<FaultKindRow, kFaultKinds> kRows{{
    {kRestart, "restart", kNodes, "gap order spacing missing missing_for"},
    {kFlap, "flap", kNodes, "device times gap"},
    {kNodeGone, "node-gone", kNodes, "device for"},
}};

static_assert(std::ranges::is_sorted(kRows, std::ranges::less_equal{}, &FaultKindRow::kind) ||
                  kFaultKinds < 2,
              "the table is in the order of the enumeration");

}  // namespace

std::span<const FaultKindRow, kFaultKinds> FaultKinds() {
  return kRows;
}

const FaultKindRow& RowOf(FaultKind kind) {
  return kRows[static_cast<size_t>(kind)];
}

}  // namespace kvox::sim
