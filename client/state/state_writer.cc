#include <fmt/format.h>

#include <sstream>

#include "client/output/printer.h"
#include "client/state/state_file.h"
#include "kvox/toml/toml.h"

namespace kvox::client {
namespace {

std::string Quoted(const std::string& text) {
  std::ostringstream stream;
  stream << toml::toml_formatter(toml::value<std::string>(text));
  return stream.str();
}

std::string List(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + Quoted(name);
  return "[" + text + "]";
}

void Add(std::string& text, const char* key, const std::string& name) {
  if (!name.empty()) text += fmt::format("{} = {}\n", key, Quoted(name));
}
void Add(std::string& text, const char* key, bool value) {
  text += fmt::format("{} = {}\n", key, value);
}
template <typename T>
void Add(std::string& text, const char* key, const std::optional<T>& value) {
  if (value) text += fmt::format("{} = {}\n", key, *value);
}

std::string Describe(const std::string& id, const ProcessorState& processor) {
  std::string text = "\n[[processor]]\n";
  Add(text, "id", id);
  Add(text, "type", processor.type);
  Add(text, "input", processor.input);
  Add(text, "output", processor.output);
  Add(text, "enabled", processor.enabled);
  Add(text, "passthrough_mode", processor.passthrough_mode);
  Add(text, "test_mode", processor.test_mode);
  Add(text, "block_length_frames", processor.block_length_frames);
  Add(text, "jitter_buffer_frames", processor.jitter_buffer_frames);
  return text;
}

std::string Describe(const std::string& name, const TapState& tap) {
  std::string text = "\n[[tap]]\n";
  Add(text, "name", name);
  Add(text, "tapout", tap.tapout);
  Add(text, "inject", tap.inject);
  Add(text, "enabled", tap.enabled);
  if (tap.block_length_frames.value_or(0) != 0) {
    Add(text, "block_length_frames", tap.block_length_frames);
  }
  return text;
}

std::set<std::string> RunningTapOuts(const Snapshot& snapshot) {
  std::set<std::string> names;
  for (const Buffer& buffer : snapshot.tapouts) {
    if (buffer.enabled) names.insert(buffer.name);
  }
  return names;
}

template <typename T>
Value OrNull(const std::optional<T>& value) {
  if (!value) return nullptr;
  if constexpr (std::is_same_v<T, bool>) return *value;
  return static_cast<int64_t>(*value);
}

Fields FieldsOf(const std::string& id, const ProcessorState& processor) {
  return {{"id", id},
          {"type", processor.type},
          {"input", NameOr(processor.input)},
          {"output", NameOr(processor.output)},
          {"enabled", processor.enabled},
          {"passthrough_mode", OrNull(processor.passthrough_mode)},
          {"test_mode", OrNull(processor.test_mode)},
          {"block_length_frames", OrNull(processor.block_length_frames)},
          {"jitter_buffer_frames", OrNull(processor.jitter_buffer_frames)}};
}

Fields FieldsOf(const std::string& name, const TapState& tap) {
  return {{"name", name},
          {"tapout", NameOr(tap.tapout)},
          {"inject", NameOr(tap.inject)},
          {"enabled", tap.enabled},
          {"block_length_frames", OrNull(tap.block_length_frames)}};
}

std::string JsonNames(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& name : names)
    text += fmt::format("{}\"{}\"", text.empty() ? "" : ", ", name);
  return "[" + text + "]";
}

constexpr char kHead[] =
    R"(# What kvoxd is set to do; 'kvoxctl apply FILE' brings it about again.
# The daemon does not tell these, so they are not here: jitter buffers and gains of tap points,
# captures, clients of relays, and which use cases are on apart from AREL_TELE. The processors and
# tap points that use cases have set up are here.
)";

std::string Gaps(const Snapshot& snapshot) {
  std::string text;
  if (!snapshot.silent_cores.empty()) {
    text += fmt::format("# No answer came from {}, whose tap points are missing here.\n",
                        NamesOfCores(snapshot.silent_cores));
  }
  if (snapshot.unread() != 0) {
    text += fmt::format("# {} of the daemon's rows could not be read and are missing here.\n",
                        snapshot.unread());
  }
  return text;
}

}  // namespace

std::string WriteState(const Snapshot& snapshot) {
  const State state = StateOf(snapshot);
  std::string text = kHead + Gaps(snapshot) + "schema = 1\n";
  if (state.telephony) text += fmt::format("use_cases = {}\n", List({kTelephony}));
  text += "# Tap-out buffers that are read; the inject buffers behind them go along.\n";
  text += fmt::format("running = {}\n", List(RunningTapOuts(snapshot)));
  for (const auto& [id, processor] : state.processors) text += Describe(id, processor);
  for (const auto& [name, tap] : state.taps) {
    if (!tap.idle()) text += Describe(name, tap);
  }
  return text;
}

std::string StateAsJson(const Snapshot& snapshot) {
  const State state = StateOf(snapshot);
  std::string processors;
  for (const auto& [id, processor] : state.processors) {
    processors += (processors.empty() ? "" : ", ") + AsJson(FieldsOf(id, processor));
  }
  std::string taps;
  for (const auto& [name, tap] : state.taps) {
    if (!tap.idle()) taps += (taps.empty() ? "" : ", ") + AsJson(FieldsOf(name, tap));
  }
  return fmt::format(
      "{{\"schema\": 1, \"use_cases\": [{}], \"running\": {}, \"processors\": [{}], \"taps\": "
      "[{}], "
      "\"silent_cores\": [{}], \"unread_rows\": {}}}\n",
      state.telephony ? "\"AREL_TELE\"" : "", JsonNames(RunningTapOuts(snapshot)), processors, taps,
      fmt::join(snapshot.silent_cores, ", "), snapshot.unread());
}

}  // namespace kvox::client
