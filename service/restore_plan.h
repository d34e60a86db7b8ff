// What one pass of a recovery restores.
#pragma once

#include <set>
#include <string>

#include "service/inventory.h"
#include "service/saved_state.h"

namespace kvox {

/// Taps, processors and buffers, in this order and each in the order of its keys.
struct RestorePlan {
  std::set<TapKey> taps;
  std::set<FourCc> processors;
  std::set<std::string> buffers;
};

/// Everything that is saved, and every processor.
void PlanEverything(const SavedTables& saved, const Inventory& inventory, RestorePlan& plan);

/// What a newly added buffer completes: everything saved about it that needs no other missing
/// buffer. The rest waits for that one.
void PlanFor(const KvoxBuffer& added, const SavedTables& saved, const Inventory& inventory,
             RestorePlan& plan);

}  // namespace kvox
