#include "client/state/apply.h"

#include <algorithm>

#include "client/state/state_file.h"

namespace kvox::client {
namespace {

using Action = Step::Action;

/// The number of a buffer, -1 for none. The names are those of the snapshot.
int32_t NumberOf(const std::vector<Buffer>& buffers, const std::string& name) {
  const Buffer* const buffer = FindBuffer(buffers, name);
  return buffer == nullptr ? -1 : buffer->id;
}

const TapPoint& TapOf(const Snapshot& snapshot, const std::string& name) {
  const auto found = std::find_if(snapshot.taps.begin(), snapshot.taps.end(),
                                  [&](const TapPoint& tap) { return tap.FullName() == name; });
  if (found != snapshot.taps.end()) return *found;
  throw Failure(kNoObject, "tap point " + name + " has gone; run apply again");
}

IKvox::CommandResult SendToTap(const Step& step, const Snapshot& snapshot, Daemon& daemon) {
  const TapPoint& tap = TapOf(snapshot, step.object);
  const auto call = [&](const char* name, auto method, const auto&... more) {
    return daemon.Call(name, method, tap.core, CodeOf(tap.code), tap.index, more...);
  };
  if (step.action == Action::kSwitchTap) return call("TapEnable", &IKvox::TapEnable, step.on);
  if (step.action == Action::kSetBlockLength) {
    return call("TapSetBlockLength", &IKvox::TapSetBlockLength, static_cast<int32_t>(step.value));
  }
  return call("ConnectTap", &IKvox::ConnectTap, NumberOf(snapshot.tapouts, step.tapout),
              NumberOf(snapshot.injects, step.inject));
}

IKvox::CommandResult SendToProcessor(const Step& step, const Snapshot& snapshot, Daemon& daemon) {
  const int32_t id = CodeOf(step.object);
  switch (step.action) {
    case Action::kDelete:
      return daemon.Call("DeleteProcessor", &IKvox::DeleteProcessor, id);
    case Action::kNew:
      return daemon.Call("NewProcessorWithType", &IKvox::NewProcessorWithType, id,
                         CodeOf(step.type));
    case Action::kSetParameter:
      return daemon.Call(
          "SetParameter", &IKvox::SetParameter, id, step.parameter, 0,
          IKvox::ParamValue::make<IKvox::ParamValue::i>(static_cast<int32_t>(step.value)));
    case Action::kConnect:
      return daemon.Call("Connect", &IKvox::Connect, id, NumberOf(snapshot.tapouts, step.tapout),
                         NumberOf(snapshot.injects, step.inject));
    default:
      return daemon.Call("ProcessorEnable", &IKvox::ProcessorEnable, id, step.on);
  }
}

/// True when the daemon took every step.
bool SendAll(std::vector<Step> steps, const Snapshot& snapshot, Daemon& daemon, Outcome& outcome) {
  for (auto step = steps.begin(); step != steps.end(); ++step) {
    try {
      const auto result = Send(*step, snapshot, daemon);
      if (result.status != IKvox::CommandStatus::OK) {
        outcome.status = kRefused;
        outcome.cause = CauseOf(result);
      }
    } catch (const Failure& failure) {
      outcome.status = failure.status();
      outcome.cause = failure.what();
    }
    if (outcome.status != kDone) {
      outcome.left.assign(step, steps.end());
      return false;
    }
    outcome.done.push_back(std::move(*step));
  }
  return true;
}

}  // namespace

IKvox::CommandResult Send(const Step& step, const Snapshot& snapshot, Daemon& daemon) {
  switch (step.action) {
    case Action::kSwitchUseCase:
      return daemon.Call("Enable", &IKvox::Enable, step.object, step.on);
    case Action::kStartBuffer:
      return daemon.Call("StartIo", &IKvox::StartIo, NumberOf(snapshot.tapouts, step.object));
    case Action::kStopBuffer:
      return daemon.Call("StopIo", &IKvox::StopIo, NumberOf(snapshot.tapouts, step.object));
    case Action::kSwitchTap:
    case Action::kSetBlockLength:
    case Action::kBind:
      return SendToTap(step, snapshot, daemon);
    default:
      return SendToProcessor(step, snapshot, daemon);
  }
}

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
    outcome.silent_cores = snapshot.silent_cores;
    const State actual = StateOf(snapshot);
    const State wanted = Complete(ReadState(text, origin, snapshot), actual, keep);
    outcome.differences = Differences(wanted, actual);
    if (finished || outcome.differences.empty()) return outcome;
    std::vector<Step> steps = Plan(wanted, actual);
    // What a use case sets up is looked at before the rest is planned.
    finished = steps.empty() || steps.front().action != Action::kSwitchUseCase;
    if (!SendAll(std::move(steps), snapshot, daemon, outcome)) return outcome;
  }
}

}  // namespace kvox::client
