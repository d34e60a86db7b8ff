#include "client/state/apply.h"

#include "client/state/state_file.h"
#include "libkvox/graph/perform.h"

namespace kvox::client {
namespace {

/// True when the daemon accepted every step.
bool SendAll(const std::vector<Step>& steps, const Snapshot& snapshot, Daemon& daemon,
             Outcome& outcome) {
  const Performed performed = SendSteps(steps, snapshot, daemon);
  const auto left = steps.begin() + static_cast<ptrdiff_t>(performed.done);
  outcome.done.insert(outcome.done.end(), steps.begin(), left);
  outcome.left.assign(left, steps.end());
  outcome.status = performed.status;
  outcome.cause = performed.cause;
  return outcome.left.empty();
}

}  // namespace

Outcome Apply(const std::string& text, const std::string& origin, bool keep, Daemon& daemon) {
  Outcome outcome;
  for (bool finished = false;;) {
    const Snapshot snapshot = ReadSnapshot(daemon);
    if (!CanBeTrusted(snapshot)) {
      const std::string gaps = GapsOf(snapshot);
      if (outcome.done.empty()) throw Failure(kRefused, "nothing was done: " + gaps);
      outcome.status = kRefused;
      outcome.cause = "the steps above are done, but what came of them is not known: " + gaps;
      return outcome;
    }
    outcome.missing_cores = snapshot.missing_cores;
    const State actual = StateOf(snapshot);
    const State wanted = Complete(ReadState(text, origin, snapshot), actual, keep);
    outcome.differences = Differences(wanted, actual);
    const std::vector<Step> steps = finished ? std::vector<Step>() : Plan(wanted, actual);
    if (steps.empty()) return outcome;
    // Query what a use case sets up before planning the rest.
    finished = steps.front().action != Step::Action::kSwitchUseCase;
    if (!SendAll(steps, snapshot, daemon, outcome)) return outcome;
  }
}

}  // namespace kvox::client
