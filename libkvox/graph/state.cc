#include "libkvox/graph/state.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace kvox::client {
namespace {

using Text = std::optional<std::string>;

/// Names and printed values; none for settings that are not given.
using Properties = std::vector<std::pair<const char*, Text>>;

Text TextOf(const std::string& name) {
  return name.empty() ? "none" : name;
}
template <typename T>
Text TextOf(const std::optional<T>& value) {
  if (!value) return std::nullopt;
  if constexpr (std::is_same_v<T, bool>) return *value ? "true" : "false";
  return std::to_string(*value);
}

Properties PropertiesOf(const ProcessorState& processor) {
  return {{"type", TextOf(processor.type)},
          {"passthrough_mode", TextOf(processor.passthrough_mode)},
          {"test_mode", TextOf(processor.test_mode)},
          {"block_length_frames", TextOf(processor.block_length_frames)},
          {"jitter_buffer_frames", TextOf(processor.jitter_buffer_frames)},
          {"input", TextOf(processor.input)},
          {"output", TextOf(processor.output)},
          {"enabled", TextOf(std::optional(processor.enabled))}};
}

Properties PropertiesOf(const TapState& tap) {
  return {{"block_length_frames", TextOf(tap.block_length_frames)},
          {"tapout", TextOf(tap.tapout)},
          {"inject", TextOf(tap.inject)},
          {"enabled", TextOf(std::optional(tap.enabled))}};
}

Properties Enabled(bool enabled) {
  return {{"enabled", TextOf(std::optional(enabled))}};
}

/// Adds the properties that differ, of those that are wanted. `unknown` stands for settings that
/// the object does not have now.
void Compare(const std::string& object, const Properties& wanted, const Properties& actual,
             std::vector<Difference>& found, const char* unknown = "unknown") {
  for (size_t i = 0; i < wanted.size(); ++i) {
    const auto& [property, value] = wanted[i];
    const Text& now = actual[i].second;
    if (value && value != now) found.push_back({object, property, *value, now.value_or(unknown)});
  }
}

void CompareProcessors(const State& wanted, const State& actual, std::vector<Difference>& found) {
  for (const auto& [id, processor] : wanted.processors) {
    const auto now = actual.processors.find(id);
    const bool exists = now != actual.processors.end();
    Compare("processor " + id, PropertiesOf(processor),
            PropertiesOf(exists ? now->second : ProcessorState()), found,
            exists ? "unknown" : "none");
  }
  for (const auto& [id, processor] : actual.processors) {
    if (wanted.processors.contains(id)) continue;
    found.push_back({"processor " + id, "type", "none", processor.type});
  }
}

void CompareTaps(const State& wanted, const State& actual, std::vector<Difference>& found) {
  for (const auto& [name, tap] : wanted.taps) {
    const auto now = actual.taps.find(name);
    Compare("tap point " + name, PropertiesOf(tap),
            PropertiesOf(now == actual.taps.end() ? TapState() : now->second), found);
  }
}

/// Adds the processors of `actual` that `wanted` leaves out. An inject buffer has one producer: a
/// processor that loses it to one of `wanted` has no output.
void KeepProcessors(const State& actual, State& wanted) {
  std::set<std::string> taken;
  for (const auto& [id, processor] : wanted.processors) taken.insert(processor.output);
  for (auto [id, processor] : actual.processors) {
    if (taken.contains(processor.output)) processor.output.clear();
    wanted.processors.emplace(id, processor);
  }
}

}  // namespace

State StateOf(const Snapshot& snapshot) {
  State state;
  for (const Processor& processor : snapshot.processors) {
    ProcessorState& processor_state = state.processors[processor.id];
    processor_state = {.type = processor.type,
                       .input = processor.input,
                       .output = processor.output,
                       .enabled = processor.enabled};
    if (const auto& settings = processor.settings) {
      processor_state.passthrough_mode = settings->passthrough_mode;
      processor_state.test_mode = settings->test_mode;
      processor_state.block_length_frames = settings->block_length_frames;
      processor_state.jitter_buffer_frames = settings->jitter_buffer_frames;
    }
  }
  for (const TapPoint& tap : snapshot.taps) {
    state.taps[tap.FullName()] = {.tapout = tap.tapout,
                                  .inject = tap.inject,
                                  .enabled = tap.enabled,
                                  .block_length_frames = tap.block_length_frames};
  }
  for (const auto* buffers : {&snapshot.tapouts, &snapshot.injects}) {
    for (const Buffer& buffer : *buffers) {
      if (buffer.enabled) state.running.insert(buffer.name);
    }
  }
  state.telephony = std::any_of(
      snapshot.use_cases.begin(), snapshot.use_cases.end(),
      [](const UseCase& use) { return use.name == kTelephony && use.enabled.value_or(false); });
  return state;
}

std::set<std::string> FedInjects(const State& wanted) {
  std::set<std::string> fed;
  for (const auto& [id, processor] : wanted.processors) {
    if (!processor.output.empty() && wanted.running.contains(processor.input)) {
      fed.insert(processor.output);
    }
  }
  return fed;
}

State Complete(State wanted, const State& actual, bool keep) {
  for (const auto& [name, tap] : actual.taps) {
    if (wanted.taps.contains(name)) continue;
    wanted.taps[name] = keep ? tap : TapState();
  }
  if (keep) {
    KeepProcessors(actual, wanted);
    wanted.running.insert(actual.running.begin(), actual.running.end());
    wanted.telephony = wanted.telephony || actual.telephony;
  }
  wanted.running.merge(FedInjects(wanted));
  return wanted;
}

std::vector<Difference> Differences(const State& wanted, const State& actual) {
  std::vector<Difference> found;
  Compare(std::string("use case ") + kTelephony, Enabled(wanted.telephony),
          Enabled(actual.telephony), found);
  CompareProcessors(wanted, actual, found);
  CompareTaps(wanted, actual, found);
  std::set<std::string> buffers = wanted.running;
  buffers.insert(actual.running.begin(), actual.running.end());
  for (const std::string& name : buffers) {
    // An inject buffer cannot be stopped alone, and without a producer it does nothing.
    if (!IsTapOut(name) && !wanted.running.contains(name)) continue;
    Compare("buffer " + name, Enabled(wanted.running.contains(name)),
            Enabled(actual.running.contains(name)), found);
  }
  return found;
}

}  // namespace kvox::client
