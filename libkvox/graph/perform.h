// Executes steps of plans.
#pragma once

#include <string>
#include <vector>

#include "libkvox/calls/daemon.h"
#include "libkvox/graph/plan.h"
#include "libkvox/model/snapshot.h"

namespace kvox::client {

/// How far a list of steps got.
struct Performed {
  size_t done = 0;  // steps; the one after them failed, if there is one
  ExitStatus status = kDone;
  std::string cause = {};  // of the failure
};

/// Sends the steps until one fails. The snapshot has their tap points and buffers.
Performed SendSteps(const std::vector<Step>& steps, const Snapshot& snapshot, Daemon& daemon);

}  // namespace kvox::client
