#include "libkvox/graph/perform.h"

#include <algorithm>

namespace kvox::client {
namespace {

using Action = Step::Action;

const TapPoint& TapOf(const Snapshot& snapshot, const std::string& name) {
  const auto found = std::find_if(snapshot.taps.begin(), snapshot.taps.end(),
                                  [&](const TapPoint& tap) { return tap.FullName() == name; });
  if (found != snapshot.taps.end()) return *found;
  throw Failure(kNoObject, "tap point " + name + " has gone; do it again");
}

/// Sends one step. Throws Failure when the daemon is gone; a refusal is in the result.
IKvox::CommandResult Send(const Step& step, const Snapshot& snapshot, Daemon& daemon) {
  // The number of a buffer of the snapshot, -1 for none.
  const auto number = [](const std::vector<Buffer>& buffers, const std::string& name) {
    const Buffer* const buffer = FindBuffer(buffers, name);
    return buffer == nullptr ? -1 : buffer->id;
  };
  const auto on_processor = [&](const char* name, auto method, const auto&... more) {
    return daemon.Call(name, method, CodeOf(step.object), more...);
  };
  const auto on_tap = [&](const char* name, auto method, const auto&... more) {
    const TapPoint& tap = TapOf(snapshot, step.object);
    return daemon.Call(name, method, tap.core, CodeOf(tap.code), tap.index, more...);
  };
  const int32_t tapout = number(snapshot.tapouts, step.tapout);
  const int32_t inject = number(snapshot.injects, step.inject);
  const auto value = static_cast<int32_t>(step.value);
  switch (step.action) {
    case Action::kSwitchUseCase:
      return daemon.Call("Enable", &IKvox::Enable, step.object, step.on);
    case Action::kSwitchTap:
      return on_tap("TapEnable", &IKvox::TapEnable, step.on);
    case Action::kSetBlockLength:
      return on_tap("TapSetBlockLength", &IKvox::TapSetBlockLength, value);
    case Action::kSetJitterBuffer:
      return on_tap("tapSetJitterBuffer", &IKvox::tapSetJitterBuffer, value);
    case Action::kBind:
      return on_tap("ConnectTap", &IKvox::ConnectTap, tapout, inject);
    case Action::kSwitchBuffer:
      return daemon.Call(step.on ? "StartIo" : "StopIo", step.on ? &IKvox::StartIo : &IKvox::StopIo,
                         number(snapshot.tapouts, step.object));
    case Action::kDelete:
      return on_processor("DeleteProcessor", &IKvox::DeleteProcessor);
    case Action::kNew:
      return on_processor("NewProcessorWithType", &IKvox::NewProcessorWithType, CodeOf(step.type));
    case Action::kSetParameter:
      return on_processor("SetParameter", &IKvox::SetParameter, step.parameter, 0,
                          IKvox::ParamValue::make<IKvox::ParamValue::i>(value));
    case Action::kConnect:
      return on_processor("Connect", &IKvox::Connect, tapout, inject);
    case Action::kSwitchProcessor:
      break;
  }
  return on_processor("ProcessorEnable", &IKvox::ProcessorEnable, step.on);
}

}  // namespace

Performed SendSteps(const std::vector<Step>& steps, const Snapshot& snapshot, Daemon& daemon) {
  Performed performed;
  for (const Step& step : steps) {
    try {
      const auto result = Send(step, snapshot, daemon);
      if (result.status != IKvox::CommandStatus::OK) throw Failure(kRefused, CauseOf(result));
    } catch (const Failure& failure) {
      performed.status = failure.status();
      performed.cause = failure.what();
      return performed;
    }
    ++performed.done;
  }
  return performed;
}

}  // namespace kvox::client
