// The commands that bring a daemon from one state to another.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <string>
#include <vector>

#include "libkvox/graph/state.h"

namespace kvox::client {

/// One command. Which fields count depends on the action.
struct Step {
  enum class Action {
    kSwitchUseCase,
    kSwitchTap,
    kSetBlockLength,
    kSetJitterBuffer,
    kBind,
    kSwitchBuffer,
    kSwitchProcessor,
    kDelete,
    kNew,
    kSetParameter,
    kConnect,
  };
  Action action;
  std::string object;     // use case, processor, tap point or buffer
  bool on = false;        // of those that switch
  std::string type = {};  // kNew
  std::string tapout = {};
  std::string inject = {};  // kConnect and kBind, "" for none
  aidl::kvox::IKvox::ParameterId parameter = aidl::kvox::IKvox::ParameterId::UNSPECIFIED;
  int64_t value = 0;  // of those that set
};

/// "processor pass: connect to tapout0 and inject0"
std::string Describe(const Step& step);

/// Changes `state` as the daemon does when it accepts the step.
void Perform(const Step& step, State& state);

/// The commands that lead from `actual` to a complete `wanted`, in this order: taps whose path
/// changes are disabled, then buffers and processors; everything is created, set and connected;
/// then processors, buffers and at last taps are enabled, so that nothing plays half-wired. Taps
/// that the file names are always set and bound: a daemon that has been restarted since does not
/// know what the co-processor still has, and would not restore it. A use case that has to be
/// switched is the only step: what it changes has to be queried first.
std::vector<Step> Plan(const State& wanted, const State& actual);

}  // namespace kvox::client
