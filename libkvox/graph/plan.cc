#include "libkvox/graph/plan.h"

#include <algorithm>
#include <utility>

namespace kvox::client {
namespace {

using Action = Step::Action;
using ParameterId = aidl::kvox::IKvox::ParameterId;

/// A new processor, apart from its type and its block length, which depends on the type.
const ProcessorState kFresh = {
    .passthrough_mode = false, .test_mode = false, .jitter_buffer_frames = 0};

/// True when `wanted` is given and differs.
template <typename T>
bool Differs(const std::optional<T>& wanted, const std::optional<T>& now) {
  return wanted && wanted != now;
}

/// A jitter buffer cannot be set to 0 again.
bool MustBeReplaced(const ProcessorState& wanted, const ProcessorState& now) {
  return wanted.type != now.type ||
         (wanted.jitter_buffer_frames == 0 && now.jitter_buffer_frames != 0);
}

/// Setting these also sets the tap point that feeds the processor.
bool LengthsDiffer(const ProcessorState& wanted, const ProcessorState& now) {
  return Differs(wanted.block_length_frames, now.block_length_frames) ||
         Differs(wanted.jitter_buffer_frames, now.jitter_buffer_frames);
}

bool Changes(const ProcessorState& wanted, const ProcessorState& now) {
  return MustBeReplaced(wanted, now) || LengthsDiffer(wanted, now) ||
         Differs(wanted.passthrough_mode, now.passthrough_mode) ||
         Differs(wanted.test_mode, now.test_mode) || wanted.input != now.input ||
         wanted.output != now.output;
}

/// A jitter buffer in the file counts as a change, because the daemon does not report the present
/// one.
bool Changes(const TapState& wanted, const TapState& now) {
  return wanted.tapout != now.tapout || wanted.inject != now.inject ||
         Differs(wanted.block_length_frames, now.block_length_frames) ||
         Differs(wanted.jitter_buffer_frames, now.jitter_buffer_frames);
}

class Planner {
 public:
  Planner(const State& wanted, State now) : wanted_(wanted), now_(std::move(now)) {}

  std::vector<Step> Run() {
    if (wanted_.telephony != now_.telephony) {
      Do({.action = Action::kSwitchUseCase, .object = kTelephony, .on = wanted_.telephony});
      return std::move(steps_);
    }
    DisableTaps();
    StopBuffers();
    DisableProcessors();
    CreateProcessors();
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

  /// Buffers of processors that change, before and after. One that comes or goes without an output
  /// disturbs nobody: others that read its input do not notice.
  std::set<std::string> ChangingBuffers() const {
    std::set<std::string> buffers;
    for (const auto& [id, now] : now_.processors) {
      const auto wanted = wanted_.processors.find(id);
      const bool stays = wanted != wanted_.processors.end();
      if (stays ? !Changes(wanted->second, now) : now.output.empty()) continue;
      buffers.insert({now.input, now.output});
      if (stays) buffers.insert({wanted->second.input, wanted->second.output});
    }
    for (const auto& [id, wanted] : wanted_.processors) {
      if (now_.processors.contains(id) || wanted.output.empty()) continue;
      buffers.insert({wanted.input, wanted.output});
    }
    buffers.erase("");
    return buffers;
  }

  void DisableTaps() {
    const std::set<std::string> changing = ChangingBuffers();
    for (const auto& [name, wanted] : wanted_.taps) {
      const TapState now = now_.taps[name];
      if (!now.enabled) continue;
      if (!wanted.enabled || Changes(wanted, now) || changing.contains(now.tapout) ||
          changing.contains(now.inject)) {
        Do({.action = Action::kSwitchTap, .object = name, .on = false});
      }
    }
  }

  void StopBuffers() {
    const std::set<std::string> running = now_.running;
    for (const std::string& name : running) {
      if (IsTapOut(name) && !wanted_.running.contains(name)) {
        Do({.action = Action::kSwitchBuffer, .object = name, .on = false});
      }
    }
  }

  void DisableProcessors() {
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

  void CreateProcessors() {
    for (const auto& [id, wanted] : wanted_.processors) {
      const auto now = now_.processors.find(id);
      if (now == now_.processors.end() || MustBeReplaced(wanted, now->second)) {
        Do({.action = Action::kNew, .object = id, .type = wanted.type});
      }
    }
  }

  void SetParameters() {
    for (const auto& [id, wanted] : wanted_.processors) {
      const ProcessorState& now = now_.processors[id];
      if (LengthsDiffer(wanted, now) && !now.input.empty()) {
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
    if (!Differs(wanted, now)) return;
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
      if (wanted.named ? wanted.block_length_frames.has_value()
                       : Differs(wanted.block_length_frames, now.block_length_frames)) {
        Do({.action = Action::kSetBlockLength,
            .object = name,
            .value = int64_t{*wanted.block_length_frames}});
      }
      if (const auto frames = JitterBufferOf(wanted)) {
        Do({.action = Action::kSetJitterBuffer, .object = name, .value = *frames});
      }
      if (!wanted.named && wanted.tapout == now.tapout && wanted.inject == now.inject) continue;
      Do({.action = Action::kBind,
          .object = name,
          .tapout = wanted.tapout,
          .inject = wanted.inject});
    }
  }

  /// What the file gives to the tap, or to a processor that reads it: that one's was set before
  /// there was a tap to forward it to.
  std::optional<int64_t> JitterBufferOf(const TapState& tap) const {
    if (!tap.named) return std::nullopt;
    if (tap.jitter_buffer_frames) return *tap.jitter_buffer_frames;
    for (const auto& [id, processor] : wanted_.processors) {
      const auto& frames = processor.jitter_buffer_frames;
      if (!tap.tapout.empty() && processor.input == tap.tapout && frames.value_or(0) != 0) {
        return *frames;
      }
    }
    return std::nullopt;
  }

  void EnableProcessors() {
    for (const auto& [id, wanted] : wanted_.processors) {
      if (!wanted.enabled || now_.processors[id].enabled) continue;
      Do({.action = Action::kSwitchProcessor, .object = id, .on = true});
    }
  }

  /// A tap-out is also started when an inject buffer that it feeds is not running.
  void StartBuffers() {
    for (const std::string& name : wanted_.running) {
      if (!IsTapOut(name)) continue;
      const auto waits = [&](const auto& entry) {
        const std::string& output = entry.second.output;
        return entry.second.input == name && !output.empty() && !now_.running.contains(output);
      };
      if (!now_.running.contains(name) ||
          std::any_of(now_.processors.begin(), now_.processors.end(), waits)) {
        Do({.action = Action::kSwitchBuffer, .object = name, .on = true});
      }
    }
  }

  void EnableTaps() {
    for (const auto& [name, wanted] : wanted_.taps) {
      if (!wanted.named && (!wanted.enabled || now_.taps[name].enabled)) continue;
      Do({.action = Action::kSwitchTap, .object = name, .on = wanted.enabled});
    }
  }

  const State& wanted_;
  State now_;
  std::vector<Step> steps_;
};

/// The buffers of kConnect and kBind.
std::string Ends(const Step& step) {
  if (step.tapout.empty()) return step.inject.empty() ? "nothing" : step.inject;
  return step.tapout + (step.inject.empty() ? "" : " and " + step.inject);
}

/// The inject buffers that the tap-out's processors write are switched with it.
void SwitchBuffer(const Step& step, State& state) {
  std::set<std::string> buffers = {step.object};
  for (const auto& [id, processor] : state.processors) {
    if (processor.input == step.object && !processor.output.empty()) {
      buffers.insert(processor.output);
    }
  }
  for (const std::string& name : buffers) state.running.erase(name);
  if (step.on) state.running.merge(buffers);
}

void SetParameter(const Step& step, ProcessorState& processor) {
  const auto frames = static_cast<int32_t>(step.value);
  if (step.parameter == ParameterId::PASSTHROUGH_MODE) processor.passthrough_mode = frames != 0;
  if (step.parameter == ParameterId::TEST_MODE) processor.test_mode = frames != 0;
  if (step.parameter == ParameterId::BLOCK_LENGTH) processor.block_length_frames = frames;
  if (step.parameter == ParameterId::JITTER_BUFFER) processor.jitter_buffer_frames = frames;
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
  const std::string on = step.on ? "enable" : "disable";
  const std::string value = std::to_string(step.value);
  const auto describe = [&](const char* noun, const std::string& what) {
    return std::string(noun) + " " + step.object + ": " + what;
  };
  switch (step.action) {
    case Action::kSwitchUseCase:
      return describe("use case", on);
    case Action::kSwitchTap:
      return describe("tap point", on);
    case Action::kSetBlockLength:
      return describe("tap point", "set block length to " + value);
    case Action::kSetJitterBuffer:
      return describe("tap point", "set jitter buffer to " + value);
    case Action::kBind:
      return describe("tap point", "bind to " + Ends(step));
    case Action::kSwitchBuffer:
      return describe("buffer", step.on ? "start" : "stop");
    case Action::kSwitchProcessor:
      return describe("processor", on);
    case Action::kDelete:
      return describe("processor", "delete");
    case Action::kNew:
      return describe("processor", "make, of type " + step.type);
    case Action::kSetParameter:
      return describe("processor", "set " + toString(step.parameter) + " to " + value);
    case Action::kConnect:
      return describe("processor", "connect to " + Ends(step));
  }
  return step.object;
}

void Perform(const Step& step, State& state) {
  const std::string& object = step.object;
  switch (step.action) {
    case Action::kSwitchUseCase:
      state.telephony = step.on;
      return;
    case Action::kSwitchTap:
      state.taps[object].enabled = step.on;
      return;
    case Action::kSetBlockLength:
      state.taps[object].block_length_frames = static_cast<uint32_t>(step.value);
      return;
    case Action::kSetJitterBuffer:
      state.taps[object].jitter_buffer_frames = static_cast<uint32_t>(step.value);
      return;
    case Action::kBind:
      state.taps[object].tapout = step.tapout;
      state.taps[object].inject = step.inject;
      return;
    case Action::kSwitchBuffer:
      return SwitchBuffer(step, state);
    case Action::kSwitchProcessor:
      state.processors[object].enabled = step.on;
      return;
    case Action::kDelete:
      state.processors.erase(object);
      return;
    case Action::kNew:
      state.processors[object] = kFresh;
      state.processors[object].type = step.type;
      return;
    case Action::kSetParameter:
      return SetParameter(step, state.processors[object]);
    case Action::kConnect:
      return Connect(step, state);
  }
}

std::vector<Step> Plan(const State& wanted, const State& actual) {
  return Planner(wanted, actual).Run();
}

}  // namespace kvox::client
