#include "client/state/plan.h"

#include <algorithm>
#include <utility>

namespace kvox::client {
namespace {

using Action = Step::Action;
using ParameterId = aidl::kvox::IKvox::ParameterId;

/// Of a processor that is as the daemon makes it, apart from its type and its block length, which
/// depends on the kind.
const ProcessorState kFresh = {
    .passthrough_mode = false, .test_mode = false, .jitter_buffer_frames = 0};

/// True when `wanted` asks for something else.
template <typename T>
bool Asks(const std::optional<T>& wanted, const std::optional<T>& now) {
  return wanted && wanted != now;
}

/// A jitter buffer cannot be set to 0 again.
bool HasToBeMadeAnew(const ProcessorState& wanted, const ProcessorState& now) {
  return wanted.type != now.type ||
         (wanted.jitter_buffer_frames == 0 && now.jitter_buffer_frames != 0);
}

/// Setting these also sets the tap point that the processor hears.
bool AsksForLengths(const ProcessorState& wanted, const ProcessorState& now) {
  return Asks(wanted.block_length_frames, now.block_length_frames) ||
         Asks(wanted.jitter_buffer_frames, now.jitter_buffer_frames);
}

bool Changes(const ProcessorState& wanted, const ProcessorState& now) {
  return HasToBeMadeAnew(wanted, now) || AsksForLengths(wanted, now) ||
         Asks(wanted.passthrough_mode, now.passthrough_mode) ||
         Asks(wanted.test_mode, now.test_mode) || wanted.input != now.input ||
         wanted.output != now.output;
}

bool Changes(const TapState& wanted, const TapState& now) {
  return wanted.tapout != now.tapout || wanted.inject != now.inject ||
         Asks(wanted.block_length_frames, now.block_length_frames);
}

class Planner {
 public:
  Planner(const State& wanted, State now) : wanted_(wanted), now_(std::move(now)) {}

  std::vector<Step> Run() {
    if (wanted_.telephony != now_.telephony) {
      Do({.action = Action::kSwitchUseCase, .object = kTelephony, .on = wanted_.telephony});
      return std::move(steps_);
    }
    QuietTaps();
    StopBuffers();
    QuietProcessors();
    MakeProcessors();
    SetParameters();
    ConnectProcessors();
    SetTaps();
    EnableProcessors();
    StartBuffers();
    EnableTaps();
    return std::move(steps_);
  }

 private:
  void Do(Step step) {
    Perform(step, now_);
    steps_.push_back(std::move(step));
  }

  /// Buffers that a processor leaves, keeps or gets while it changes.
  std::set<std::string> BuffersInMotion() const {
    std::set<std::string> buffers;
    for (const auto& [id, now] : now_.processors) {
      const auto wanted = wanted_.processors.find(id);
      const bool stays = wanted != wanted_.processors.end();
      if (stays && !Changes(wanted->second, now)) continue;
      buffers.insert({now.input, now.output});
      if (stays) buffers.insert({wanted->second.input, wanted->second.output});
    }
    for (const auto& [id, wanted] : wanted_.processors) {
      if (!now_.processors.contains(id)) buffers.insert({wanted.input, wanted.output});
    }
    buffers.erase("");
    return buffers;
  }

  void QuietTaps() {
    const std::set<std::string> in_motion = BuffersInMotion();
    for (const auto& [name, wanted] : wanted_.taps) {
      const TapState now = now_.taps[name];
      if (!now.enabled) continue;
      if (!wanted.enabled || Changes(wanted, now) || in_motion.contains(now.tapout) ||
          in_motion.contains(now.inject)) {
        Do({.action = Action::kSwitchTap, .object = name, .on = false});
      }
    }
  }

  void StopBuffers() {
    const std::set<std::string> running = now_.running;
    for (const std::string& name : running) {
      if (name.starts_with("tapout") && !wanted_.running.contains(name)) {
        Do({.action = Action::kStopBuffer, .object = name});
      }
    }
  }

  void QuietProcessors() {
    const auto processors = now_.processors;
    for (const auto& [id, now] : processors) {
      const auto wanted = wanted_.processors.find(id);
      const bool stays = wanted != wanted_.processors.end();
      if (now.enabled && (!stays || !wanted->second.enabled || Changes(wanted->second, now))) {
        Do({.action = Action::kSwitchProcessor, .object = id, .on = false});
      }
      if (!stays) Do({.action = Action::kDelete, .object = id});
    }
  }

  void MakeProcessors() {
    for (const auto& [id, wanted] : wanted_.processors) {
      const auto now = now_.processors.find(id);
      if (now == now_.processors.end() || HasToBeMadeAnew(wanted, now->second)) {
        Do({.action = Action::kNew, .object = id, .type = wanted.type});
      }
    }
  }

  void SetParameters() {
    for (const auto& [id, wanted] : wanted_.processors) {
      const ProcessorState& now = now_.processors[id];
      if (AsksForLengths(wanted, now) && !now.input.empty()) {
        Do({.action = Action::kConnect, .object = id});
      }
      Set(id, ParameterId::PASSTHROUGH_MODE, wanted.passthrough_mode, now.passthrough_mode);
      Set(id, ParameterId::TEST_MODE, wanted.test_mode, now.test_mode);
      Set(id, ParameterId::BLOCK_LENGTH, wanted.block_length_frames, now.block_length_frames);
      Set(id, ParameterId::JITTER_BUFFER, wanted.jitter_buffer_frames, now.jitter_buffer_frames);
    }
  }

  template <typename T>
  void Set(const std::string& id, ParameterId parameter, const std::optional<T>& wanted,
           const std::optional<T>& now) {
    if (!Asks(wanted, now)) return;
    Do({.action = Action::kSetParameter,
        .object = id,
        .parameter = parameter,
        .value = static_cast<int64_t>(*wanted)});
  }

  void ConnectProcessors() {
    for (const auto& [id, wanted] : wanted_.processors) {
      const ProcessorState& now = now_.processors[id];
      if (wanted.input == now.input && wanted.output == now.output) continue;
      Do({.action = Action::kConnect,
          .object = id,
          .tapout = wanted.input,
          .inject = wanted.output});
    }
  }

  void SetTaps() {
    for (const auto& [name, wanted] : wanted_.taps) {
      const TapState& now = now_.taps[name];
      if (Asks(wanted.block_length_frames, now.block_length_frames)) {
        Do({.action = Action::kSetBlockLength,
            .object = name,
            .value = int64_t{*wanted.block_length_frames}});
      }
      if (wanted.tapout == now.tapout && wanted.inject == now.inject) continue;
      Do({.action = Action::kBind,
          .object = name,
          .tapout = wanted.tapout,
          .inject = wanted.inject});
    }
  }

  void EnableProcessors() {
    for (const auto& [id, wanted] : wanted_.processors) {
      if (!wanted.enabled || now_.processors[id].enabled) continue;
      Do({.action = Action::kSwitchProcessor, .object = id, .on = true});
    }
  }

  /// A tap-out is started again when an inject buffer that it feeds does not run.
  void StartBuffers() {
    for (const std::string& name : wanted_.running) {
      if (!name.starts_with("tapout")) continue;
      const auto waits = [&](const auto& entry) {
        const std::string& output = entry.second.output;
        return entry.second.input == name && !output.empty() && !now_.running.contains(output);
      };
      if (!now_.running.contains(name) ||
          std::any_of(now_.processors.begin(), now_.processors.end(), waits)) {
        Do({.action = Action::kStartBuffer, .object = name});
      }
    }
  }

  void EnableTaps() {
    for (const auto& [name, wanted] : wanted_.taps) {
      if (!wanted.enabled || now_.taps[name].enabled) continue;
      Do({.action = Action::kSwitchTap, .object = name, .on = true});
    }
  }

  const State& wanted_;
  State now_;
  std::vector<Step> steps_;
};

std::string Tie(const Step& step) {
  if (step.tapout.empty() && step.inject.empty()) return "nothing";
  if (step.tapout.empty()) return step.inject;
  return step.tapout + (step.inject.empty() ? "" : " and " + step.inject);
}

/// Also what goes with it: the tap-out's processors write these.
void SwitchBuffers(const Step& step, bool on, State& state) {
  std::set<std::string> buffers = {step.object};
  for (const auto& [id, processor] : state.processors) {
    if (processor.input == step.object && !processor.output.empty()) {
      buffers.insert(processor.output);
    }
  }
  for (const std::string& name : buffers) {
    if (on) {
      state.running.insert(name);
    } else {
      state.running.erase(name);
    }
  }
}

void SetParameter(const Step& step, ProcessorState& processor) {
  const auto frames = static_cast<int32_t>(step.value);
  switch (step.parameter) {
    case ParameterId::PASSTHROUGH_MODE:
      processor.passthrough_mode = step.value != 0;
      break;
    case ParameterId::TEST_MODE:
      processor.test_mode = step.value != 0;
      break;
    case ParameterId::BLOCK_LENGTH:
      processor.block_length_frames = frames;
      break;
    default:
      processor.jitter_buffer_frames = frames;
      break;
  }
}

void Connect(const Step& step, State& state) {
  for (auto& [id, processor] : state.processors) {
    if (!step.inject.empty() && processor.output == step.inject) processor.output.clear();
  }
  ProcessorState& processor = state.processors[step.object];
  processor.input = step.tapout;
  processor.output = step.inject;
}

}  // namespace

std::string Describe(const Step& step) {
  const char* const on = step.on ? "enable" : "disable";
  switch (step.action) {
    case Action::kSwitchUseCase:
      return "use case " + step.object + ": " + on;
    case Action::kSwitchTap:
      return "tap point " + step.object + ": " + on;
    case Action::kStopBuffer:
      return "buffer " + step.object + ": stop";
    case Action::kSwitchProcessor:
      return "processor " + step.object + ": " + on;
    case Action::kDelete:
      return "processor " + step.object + ": delete";
    case Action::kNew:
      return "processor " + step.object + ": make, of type " + step.type;
    case Action::kSetParameter:
      return "processor " + step.object + ": set " + toString(step.parameter) + " to " +
             std::to_string(step.value);
    case Action::kConnect:
      return "processor " + step.object + ": connect to " + Tie(step);
    case Action::kSetBlockLength:
      return "tap point " + step.object + ": set block length to " + std::to_string(step.value);
    case Action::kBind:
      return "tap point " + step.object + ": bind to " + Tie(step);
    case Action::kStartBuffer:
      return "buffer " + step.object + ": start";
  }
  return step.object;
}

void Perform(const Step& step, State& state) {
  switch (step.action) {
    case Action::kSwitchUseCase:
      state.telephony = step.on;
      break;
    case Action::kSwitchTap:
      state.taps[step.object].enabled = step.on;
      break;
    case Action::kSwitchProcessor:
      state.processors[step.object].enabled = step.on;
      break;
    case Action::kDelete:
      state.processors.erase(step.object);
      break;
    case Action::kNew:
      state.processors[step.object] = kFresh;
      state.processors[step.object].type = step.type;
      break;
    case Action::kSetParameter:
      SetParameter(step, state.processors[step.object]);
      break;
    case Action::kConnect:
      Connect(step, state);
      break;
    case Action::kSetBlockLength:
      state.taps[step.object].block_length_frames = static_cast<uint32_t>(step.value);
      break;
    case Action::kBind:
      state.taps[step.object].tapout = step.tapout;
      state.taps[step.object].inject = step.inject;
      break;
    case Action::kStopBuffer:
    case Action::kStartBuffer:
      SwitchBuffers(step, step.action == Action::kStartBuffer, state);
      break;
  }
}

std::vector<Step> Plan(const State& wanted, const State& actual) {
  return Planner(wanted, actual).Run();
}

}  // namespace kvox::client
