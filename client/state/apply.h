// Executes plans.
#pragma once

#include "libkvox/calls/daemon.h"
#include "libkvox/errors.h"
#include "libkvox/graph/plan.h"
#include "libkvox/model/snapshot.h"

namespace kvox::client {

/// The result of applying a plan.
struct Outcome {
  std::vector<Step> done;
  std::vector<Step> left;               // the first of them failed, if there are any
  ExitStatus status = kDone;            // of the failure
  std::string cause;                    // of the failure
  std::vector<Difference> differences;  // that remain although nothing failed
  MissingCores missing_cores;           // whose tap points were left alone
};

/// Parses the file's `text`, and makes the daemon match it. Throws Failure, before anything is
/// changed, as ReadState does and when what the daemon says about itself is not complete. Main
/// thread.
Outcome Apply(const std::string& text, const std::string& origin, bool keep, Daemon& daemon);

}  // namespace kvox::client
