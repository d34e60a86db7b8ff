#include "libkvox/graph/change.h"

#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "kvox/common/unique_fd.h"
#include "libkvox/flight/find_flight.h"
#include "libkvox/graph/perform.h"

namespace kvox::client {
namespace {

Snapshot ReadWhole(Daemon& daemon) {
  Snapshot snapshot = ReadSnapshot(daemon);
  if (!CanBeTrusted(snapshot)) throw Failure(kRefused, "nothing was done: " + GapsOf(snapshot));
  return snapshot;
}

GraphChange ChangeOf(const Snapshot& snapshot, const Edit& edit) {
  GraphChange change{.before = StateOf(snapshot), .after = edit(snapshot)};
  change.steps = Plan(change.after, change.before);
  return change;
}

/// "processor pass: connect to tapout0: cause"
std::string FailureOf(const std::vector<Step>& steps, const Performed& performed) {
  return Describe(steps[performed.done]) + ": " + performed.cause;
}

/// Buffers of processors that are there now and have nothing to do with the change.
std::set<std::string> BuffersOfOthers(const State& now, const GraphChange& change) {
  std::set<std::string> buffers;
  for (const auto& [id, processor] : now.processors) {
    if (change.before.processors.contains(id) || change.after.processors.contains(id)) continue;
    buffers.insert({processor.input, processor.output});
  }
  buffers.erase("");
  return buffers;
}

/// Whether a step of the change is about the object.
bool Concerns(const GraphChange& change, const std::string& object) {
  return std::ranges::count(change.steps, object, &Step::object) > 0;
}

void SendAll(const std::vector<Step>& steps, const Snapshot& snapshot, Daemon& daemon) {
  const Performed performed = SendSteps(steps, snapshot, daemon);
  if (performed.done < steps.size()) {
    throw Failure(performed.status, FailureOf(steps, performed));
  }
}

/// Takes back what the change made and nobody else uses now. Throws Failure.
void Undo(Daemon& daemon, const GraphChange& change) {
  const Snapshot snapshot = ReadWhole(daemon);
  const State now = StateOf(snapshot);
  SendAll(Plan(Reverted(now, change), now), snapshot, daemon);
}

/// One client at a time. Where there is no flight log, nobody waits.
class ChangeLock {
 public:
  ChangeLock() : fd_(OpenFlight()) {
    const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
    while (fd_.valid() && flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        throw Failure(kTimedOut,
                      "nothing was done: another client has been changing the graph for ten "
                      "seconds; end it");
      }
      std::this_thread::sleep_for(kPoll);
    }
  }

 private:
  static constexpr std::chrono::seconds kLongestWait{10};
  static constexpr std::chrono::milliseconds kPoll{5};
  UniqueFd fd_;
};

}  // namespace

GraphChange PlanChange(Daemon& daemon, const Edit& edit) {
  return ChangeOf(ReadWhole(daemon), edit);
}

GraphChange MakeChange(Daemon& daemon, const Edit& edit) {
  const ChangeLock lock;
  const Snapshot snapshot = ReadWhole(daemon);
  GraphChange change = ChangeOf(snapshot, edit);
  const Performed performed = SendSteps(change.steps, snapshot, daemon);
  if (performed.done == change.steps.size()) return change;
  const std::string failed = FailureOf(change.steps, performed);
  try {
    Undo(daemon, change);
  } catch (const Failure& failure) {
    throw Failure(performed.status, failed +
                                        "; the steps before it are done, undoing them failed: " +
                                        failure.what() + "; 'kvoxctl graph' shows what is left");
  }
  throw Failure(performed.status, failed + "; everything is as it was before");
}

void MakeChangeSoFar(Daemon& daemon, const Edit& edit) {
  const ChangeLock lock;
  const Snapshot snapshot = ReadWhole(daemon);
  SendAll(ChangeOf(snapshot, edit).steps, snapshot, daemon);
}

State Reverted(State now, const GraphChange& change) {
  const State& before = change.before;
  const State& after = change.after;
  const std::set<std::string> used = BuffersOfOthers(now, change);
  for (const auto& [id, processor] : after.processors) {
    const auto then = before.processors.find(id);
    if (then == before.processors.end()) {
      now.processors.erase(id);
    } else if (Concerns(change, id) && now.processors.contains(id)) {
      now.processors[id] = then->second;
    }
  }
  for (const auto& [id, processor] : before.processors) {
    if (!after.processors.contains(id)) now.processors.emplace(id, processor);
  }
  for (const auto& [name, tap] : after.taps) {
    const auto then = before.taps.find(name);
    const auto current = now.taps.find(name);
    if (!Concerns(change, name) || then == before.taps.end() || current == now.taps.end()) continue;
    if (used.contains(tap.tapout) || used.contains(tap.inject)) continue;
    current->second.tapout = then->second.tapout;
    current->second.inject = then->second.inject;
    current->second.enabled = then->second.enabled;
  }
  for (const std::string& name : after.running) {
    if (!before.running.contains(name) && !used.contains(name)) now.running.erase(name);
  }
  for (const std::string& name : before.running) {
    if (!after.running.contains(name)) now.running.insert(name);
  }
  return now;
}

}  // namespace kvox::client
