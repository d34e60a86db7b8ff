#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <sstream>
#include <string_view>

#include "client/output/json.h"
#include "client/state/state_file.h"
#include "kvox/toml/toml.h"

namespace kvox::client {
namespace {

Json RecordOf(const std::string& id, const ProcessorState& processor) {
  return {{"id", id},
          {"type", processor.type},
          {"input", OrNull(processor.input)},
          {"output", OrNull(processor.output)},
          {"enabled", processor.enabled},
          {"passthrough_mode", OrNull(processor.passthrough_mode)},
          {"test_mode", OrNull(processor.test_mode)},
          {"block_length_frames", OrNull(processor.block_length_frames)},
          {"jitter_buffer_frames", OrNull(processor.jitter_buffer_frames)}};
}

Json RecordOf(const std::string& name, const TapState& tap) {
  return {{"name", name},
          {"tapout", OrNull(tap.tapout)},
          {"inject", OrNull(tap.inject)},
          {"enabled", tap.enabled},
          {"block_length_frames", OrNull(tap.block_length_frames)}};
}

/// All use cases whose state the daemon reports, and which are on.
Json UseCasesOf(const State& state) {
  return state.telephony ? Json::array({kTelephony}) : Json::array();
}

Json RunningTapOuts(const Snapshot& snapshot) {
  std::set<std::string> names;
  for (const Buffer& buffer : snapshot.tapouts) {
    if (buffer.enabled) names.insert(buffer.name);
  }
  return names;
}

/// A value, or a list of texts.
std::string AsToml(const Json& value) {
  if (value.is_array()) {
    std::string text;
    for (const Json& element : value) text += (text.empty() ? "" : ", ") + AsToml(element);
    return "[" + text + "]";
  }
  if (!value.is_string()) return value.dump();
  std::ostringstream stream;
  stream << toml::toml_formatter(toml::value<std::string>(value.get<std::string>()));
  return stream.str();
}

/// An element of `[[table]]`, without keys that are null.
std::string AsToml(const char* table, const Json& record) {
  std::string text = fmt::format("\n[[{}]]\n", table);
  for (const auto& [key, value] : record.items()) {
    if (!value.is_null()) text += fmt::format("{} = {}\n", key, AsToml(value));
  }
  return text;
}

/// What files hold, and what cannot be set.
constexpr std::string_view kOwnParameters[] = {"UNSPECIFIED",  "VERSION",      "PASSTHROUGH_MODE",
                                               "TEST_MODE",    "BLOCK_LENGTH", "AUDIO_FORMAT",
                                               "JITTER_BUFFER"};

/// Kinds of processors that add no parameters.
constexpr std::string_view kOwnTypes[] = {"pass", "arel", "phbt"};

constexpr char kHead[] =
    R"(# What kvoxd is set to do; 'kvoxctl apply FILE' restores it.
# The daemon does not report these, so they are not here: jitter buffers and gains of tap points,
# captures, clients of relays, and which use cases are on apart from AREL_TELE. The processors and
# tap points that use cases have set up are here.
)";

std::string Gaps(const Snapshot& snapshot) {
  std::string text;
  if (const Omitted omitted = OmittedFrom(snapshot); !omitted.empty()) {
    text += fmt::format("# Also {}.\n", omitted.Text());
  }
  const MissingCores& cores = snapshot.missing_cores;
  if (!cores.silent.empty()) {
    text += fmt::format("# No reply came from {}, whose tap points are missing here.\n",
                        NamesOfCores(cores.silent));
  }
  if (!cores.absent.empty()) {
    text += fmt::format("# The co-processor has no {}.\n", NamesOfCores(cores.absent));
  }
  if (snapshot.unparsed_rows() != 0) {
    text += fmt::format("# {} of the daemon's rows could not be read and are missing here.\n",
                        snapshot.unparsed_rows());
  }
  return text;
}

}  // namespace

Omitted OmittedFrom(const Snapshot& snapshot) {
  Omitted omitted;
  for (const std::string& name : snapshot.parameters) {
    if (std::ranges::count(kOwnParameters, name) == 0) omitted.parameters.push_back(name);
  }
  for (const Processor& processor : snapshot.processors) {
    if (std::ranges::count(kOwnTypes, processor.type) > 0) continue;
    omitted.processors.push_back(processor.id);
  }
  return omitted;
}

std::string Omitted::Text() const {
  std::string text;
  if (!parameters.empty()) text = fmt::format("the parameters {}", fmt::join(parameters, ", "));
  if (!processors.empty()) {
    text += fmt::format("{}parameters that only the kind of {} has", text.empty() ? "" : ", and ",
                        fmt::join(processors, ", "));
  }
  return text.empty() ? ""
                      : "not here: " + text + "; set them with 'kvoxctl param set' after apply";
}

std::string WriteState(const Snapshot& snapshot) {
  const State state = StateOf(snapshot);
  std::string text = kHead + Gaps(snapshot) + "schema = 1\n";
  if (state.telephony) text += fmt::format("use_cases = {}\n", AsToml(UseCasesOf(state)));
  text += "# Tap-out buffers that are read; the inject buffers that they feed run with them.\n";
  text += fmt::format("running = {}\n", AsToml(RunningTapOuts(snapshot)));
  for (const auto& [id, processor] : state.processors) {
    text += AsToml("processor", RecordOf(id, processor));
  }
  for (auto [name, tap] : state.taps) {
    if (tap.block_length_frames == 0) tap.block_length_frames.reset();  // which no file may hold
    if (!tap.idle()) text += AsToml("tap", RecordOf(name, tap));
  }
  return text;
}

Json StateAsJson(const Snapshot& snapshot) {
  const State state = StateOf(snapshot);
  Json processors = Json::array();
  for (const auto& [id, processor] : state.processors) {
    processors.push_back(RecordOf(id, processor));
  }
  Json taps = Json::array();
  for (const auto& [name, tap] : state.taps) {
    if (!tap.idle()) taps.push_back(RecordOf(name, tap));
  }
  const Omitted omitted = OmittedFrom(snapshot);
  return {{"schema", 1},
          {"use_cases", UseCasesOf(state)},
          {"running", RunningTapOuts(snapshot)},
          {"processors", processors},
          {"taps", taps},
          {"silent_cores", snapshot.missing_cores.silent},
          {"unread_rows", snapshot.unparsed_rows()},
          {"absent_cores", snapshot.missing_cores.absent},
          {"omitted_parameters", omitted.parameters},
          {"omitted_processors", omitted.processors}};
}

}  // namespace kvox::client
