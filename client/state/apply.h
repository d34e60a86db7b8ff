// Plans carried out at a daemon.
#pragma once

#include "client/calls/daemon.h"
#include "client/errors.h"
#include "client/model/snapshot.h"
#include "client/state/plan.h"

namespace kvox::client {

/// Sends one step. Throws Failure when the daemon is gone; a refusal is in the answer.
IKvox::CommandResult Send(const Step& step, const Snapshot& snapshot, Daemon& daemon);

/// How far a daemon was brought.
struct Outcome {
  std::vector<Step> done;
  std::vector<Step> left;               // the first of them went wrong, if there are any
  ExitStatus status = kDone;            // of what went wrong
  std::string cause;                    // likewise
  std::vector<Difference> differences;  // that remain though nothing went wrong
  std::vector<int> silent_cores;        // whose tap points were left alone
};

/// Reads the file's `text`, and makes the daemon match it. Throws Failure, before anything is
/// changed, as ReadState does and when the daemon does not tell all of what it is set to do. Main
/// thread.
Outcome Apply(const std::string& text, const std::string& origin, bool keep, Daemon& daemon);

}  // namespace kvox::client
