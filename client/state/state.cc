#include "client/state/state.h"

#include <algorithm>
#include <concepts>

namespace kvox::client {
namespace {

std::string Text(bool value) {
  return value ? "true" : "false";
}
template <std::integral Number>
std::string Text(Number value) {
  return std::to_string(value);
}
std::string Text(const std::string& name) {
  return name.empty() ? "none" : name;
}

/// Collects the properties in which one object differs.
class Comparison {
 public:
  /// `absent` stands for settings that the object does not have now.
  Comparison(std::string object, std::vector<Difference>& found, const char* absent = "unknown")
      : object_(std::move(object)), found_(found), absent_(absent) {}

  template <typename T>
  void Compare(const char* property, const T& wanted, const T& actual) {
    if (wanted != actual) found_.push_back({object_, property, Text(wanted), Text(actual)});
  }
  template <typename T>
  void Compare(const char* property, const std::optional<T>& wanted,
               const std::optional<T>& actual) {
    if (!wanted || wanted == actual) return;
    found_.push_back({object_, property, Text(*wanted), actual ? Text(*actual) : absent_});
  }

 private:
  const std::string object_;
  std::vector<Difference>& found_;
  const char* const absent_;
};

void CompareProcessors(const State& wanted, const State& actual, std::vector<Difference>& found) {
  for (const auto& [id, processor] : wanted.processors) {
    const auto found_now = actual.processors.find(id);
    const bool is_there = found_now != actual.processors.end();
    const ProcessorState now = is_there ? found_now->second : ProcessorState();
    Comparison comparison("processor " + id, found, is_there ? "unknown" : "none");
    comparison.Compare("type", processor.type, now.type);
    comparison.Compare("passthrough_mode", processor.passthrough_mode, now.passthrough_mode);
    comparison.Compare("test_mode", processor.test_mode, now.test_mode);
    comparison.Compare("block_length_frames", processor.block_length_frames,
                       now.block_length_frames);
    comparison.Compare("jitter_buffer_frames", processor.jitter_buffer_frames,
                       now.jitter_buffer_frames);
    comparison.Compare("input", processor.input, now.input);
    comparison.Compare("output", processor.output, now.output);
    comparison.Compare("enabled", processor.enabled, now.enabled);
  }
  for (const auto& [id, processor] : actual.processors) {
    if (wanted.processors.contains(id)) continue;
    Comparison("processor " + id, found).Compare("type", std::string(), processor.type);
  }
}

void CompareTaps(const State& wanted, const State& actual, std::vector<Difference>& found) {
  for (const auto& [name, tap] : wanted.taps) {
    const auto now = actual.taps.find(name);
    const TapState absent;
    const TapState& there = now == actual.taps.end() ? absent : now->second;
    Comparison comparison("tap point " + name, found);
    comparison.Compare("block_length_frames", tap.block_length_frames, there.block_length_frames);
    comparison.Compare("tapout", tap.tapout, there.tapout);
    comparison.Compare("inject", tap.inject, there.inject);
    comparison.Compare("enabled", tap.enabled, there.enabled);
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
  Comparison(std::string("use case ") + kTelephony, found)
      .Compare("enabled", wanted.telephony, actual.telephony);
  CompareProcessors(wanted, actual, found);
  CompareTaps(wanted, actual, found);
  std::set<std::string> buffers = wanted.running;
  buffers.insert(actual.running.begin(), actual.running.end());
  for (const std::string& name : buffers) {
    // An inject buffer cannot be stopped alone, and without a producer it does nothing.
    if (!IsTapOut(name) && !wanted.running.contains(name)) continue;
    Comparison("buffer " + name, found)
        .Compare("enabled", wanted.running.contains(name), actual.running.contains(name));
  }
  return found;
}

}  // namespace kvox::client
