// How a daemon is brought from one state to another. Pure.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <string>
#include <vector>

#include "client/state/state.h"

namespace kvox::client {

/// One command. Which fields count depends on the action.
struct Step {
  enum class Action {
    kSwitchUseCase,
    kSwitchTap,
    kStopBuffer,
    kSwitchProcessor,
    kDelete,
    kNew,
    kSetParameter,
    kConnect,
    kSetBlockLength,
    kBind,
    kStartBuffer,
  };
  Action action;
  std::string object;     // use case, processor, tap point or buffer
  bool on = false;        // of the three that switch
  std::string type = {};  // kNew
  std::string tapout = {};
  std::string inject = {};  // kConnect and kBind, "" for none
  aidl::kvox::IKvox::ParameterId parameter = aidl::kvox::IKvox::ParameterId::UNSPECIFIED;
  int64_t value = 0;  // kSetParameter and kSetBlockLength
};

/// "processor pass: connect to tapout0 and inject0"
std::string Describe(const Step& step);

/// What the daemon makes of a step that it accepts.
void Perform(const Step& step, State& state);

/// The commands that lead from `actual` to a complete `wanted`, in this order: taps whose way
/// changes are switched off, then buffers and processors; everything is made, set and tied; then
/// processors, buffers and at last taps are switched on, so that nothing plays half-wired. A use
/// case that has to be switched is the only step then: what it does has to be looked at first.
std::vector<Step> Plan(const State& wanted, const State& actual);

}  // namespace kvox::client
