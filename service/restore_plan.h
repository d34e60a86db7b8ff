// What one pass of a recovery restores.
#pragma once

#include <set>
#include <string>
#include <vector>

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

/// Buffers that are to run, exist, and are off: their devices did not open.
void PlanClosed(const SavedTables& saved, const Inventory& inventory, RestorePlan& plan);

/// A buffer that several tap points name belongs to the one that was bound last, which is not
/// always the last in key order. Returns those that have to be bound once more after `restored`, in
/// order.
std::vector<TapKey> BoundOnceMore(const SavedTables& saved, const std::set<TapKey>& restored);

}  // namespace kvox
