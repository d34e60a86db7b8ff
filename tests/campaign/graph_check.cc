#include "tests/campaign/graph_check.h"

#include <fmt/format.h>

#include "tests/campaign/streams.h"

namespace kvox::campaign {
namespace {

std::string BufferName(const char* kind, int number) {
  return number == kNone ? "-" : fmt::format("{}{}", kind, number);
}

/// The tap that is bound to a buffer, as the graph shows it.
std::string TapOf(const Model& model, int buffer, int TapModel::*end) {
  for (const Stream& stream : Streams()) {
    const auto found = model.taps().find({stream.core, stream.tap, stream.index});
    if (buffer == kNone || found == model.taps().end() || found->second.*end != buffer) continue;
    return stream.TapName() + (found->second.enabled ? "" : " (disabled)");
  }
  return "NC";
}

std::string GraphLine(const Model& model, const std::string& id, const ProcessorModel& processor) {
  const auto name = [](const char* kind, int number) {
    return number == kNone ? std::string("NC") : BufferName(kind, number);
  };
  return fmt::format(
      "{} --> {} --> {} --> {} --> {}", TapOf(model, processor.tapout, &TapModel::tapout),
      name("tapout", processor.tapout), id + (processor.enabled ? "" : " (disabled)"),
      name("inject", processor.inject), TapOf(model, processor.inject, &TapModel::inject));
}

std::string Text(const ProcessorRow& row) {
  return fmt::format("{} {} {} {}", row.type, row.tapout, row.inject, row.enabled ? "on" : "off");
}
std::string Text(const BufferRow& row) {
  return fmt::format("{} [{}] {}", row.name, fmt::join(row.processors, ","),
                     row.enabled ? "on" : "off");
}
std::string Text(const std::string& line) {
  return line;
}

template <typename Map>
void CompareMaps(const char* what, const Map& expected, const Map& shown,
                 std::vector<std::string>& differences) {
  for (const auto& [key, row] : expected) {
    const auto found = shown.find(key);
    if (found != shown.end() && found->second == row) continue;
    differences.push_back(fmt::format("{} {}: asked for '{}', listed '{}'", what, key, Text(row),
                                      found == shown.end() ? "nothing" : Text(found->second)));
  }
  for (const auto& [key, row] : shown) {
    if (expected.contains(key)) continue;
    differences.push_back(fmt::format("{} {}: listed '{}', not asked for", what, key, Text(row)));
  }
}

std::string Text(const TapModel& tap) {
  return fmt::format("{} tapout {} inject {} block {} jitter {}", tap.enabled ? "on" : "off",
                     tap.tapout, tap.inject, tap.block_length.value_or(0),
                     tap.jitter_buffer.value_or(0));
}

/// What was never set is whatever it is.
void CompareTap(const std::string& name, const TapModel& asked, const TapFigures& told,
                std::vector<std::string>& differences) {
  TapModel is{told.enabled, told.tapout, told.inject, told.block_length, told.jitter_buffer};
  if (!asked.block_length) is.block_length = asked.block_length;
  if (!asked.jitter_buffer) is.jitter_buffer = asked.jitter_buffer;
  if (is == asked) return;
  differences.push_back(fmt::format("tap {}: asked for '{}', the co-processor has '{}'", name,
                                    Text(asked), Text(is)));
}

}  // namespace

GraphTables ExpectedTables(const Model& model) {
  GraphTables tables;
  for (const Stream& stream : Streams()) {
    tables.tapouts[stream.buffer] = {
        BufferName("tapout", stream.buffer), {}, model.tapouts().contains(stream.buffer)};
    tables.injects[stream.buffer] = {
        BufferName("inject", stream.buffer), {}, model.injects().contains(stream.buffer)};
  }
  for (const auto& [code, processor] : model.processors()) {
    const std::string id = ToString(code);
    tables.processors[id] = {ToString(processor.type), BufferName("tapout", processor.tapout),
                             BufferName("inject", processor.inject), processor.enabled};
    if (processor.tapout != kNone) tables.tapouts[processor.tapout].processors.insert(id);
    if (processor.inject != kNone) tables.injects[processor.inject].processors.insert(id);
    tables.graph[id] = GraphLine(model, id, processor);
  }
  return tables;
}

GraphTables AskTables(Caller& caller) {
  const auto lines = [&](const char* name, auto method) {
    return caller.Call(name, method).result.lines;
  };
  return {.processors = ParseProcessors(lines("ListProcessors", &IKvox::ListProcessors)),
          .tapouts = ParseBuffers(lines("ListTapOutBuffers", &IKvox::ListTapOutBuffers),
                                  Direction::kTapOut),
          .injects = ParseBuffers(lines("ListInjectBuffers", &IKvox::ListInjectBuffers),
                                  Direction::kInject),
          .graph = ParseGraph(lines("ShowGraph", &IKvox::ShowGraph))};
}

std::vector<std::string> Compare(const Model& model, const GraphTables& shown,
                                 const SimStatus& told) {
  std::vector<std::string> differences;
  const GraphTables expected = ExpectedTables(model);
  CompareMaps("processor", expected.processors, shown.processors, differences);
  CompareMaps("tap-out buffer", expected.tapouts, shown.tapouts, differences);
  CompareMaps("inject buffer", expected.injects, shown.injects, differences);
  CompareMaps("graph of", expected.graph, shown.graph, differences);
  for (const auto& [id, tap] : model.taps()) {
    const auto& [core, code, index] = id;
    const std::string name = fmt::format("{}.{}", ToString(code), index);
    const auto found = told.taps.find(name);
    if (found != told.taps.end()) CompareTap(name, tap, found->second, differences);
  }
  return differences;
}

}  // namespace kvox::campaign
