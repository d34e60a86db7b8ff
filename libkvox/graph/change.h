// Changes of a daemon's state that are made as a whole, and can be taken back.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "libkvox/calls/daemon.h"
#include "libkvox/graph/plan.h"

namespace kvox::client {

/// A change: the daemon's state before, and what it should be after.
struct GraphChange {
  State before = {};
  State after = {};
  std::vector<Step> steps = {};  // from one to the other
};

/// What the state should become. May throw Failure.
using Edit = std::function<State(const Snapshot&)>;

/// The change that `edit` makes of the daemon's present state; nothing is sent. Throws Failure,
/// also when what the daemon says about itself is not complete.
GraphChange PlanChange(Daemon& daemon, const Edit& edit);

// Changes of several clients take turns, by a lock of the flight log. Both throw Failure, also when
// another client has been at it for ten seconds.

/// Makes the change. When a step fails, the steps before it are undone; the failure names the step
/// and the cause.
GraphChange MakeChange(Daemon& daemon, const Edit& edit);

/// The same, but when a step fails, those before it stay.
void MakeChangeSoFar(Daemon& daemon, const Edit& edit);

/// Without what the change has made and nobody else uses now. Pure.
State Reverted(State now, const GraphChange& change);

}  // namespace kvox::client
