#include "tests/campaign/graph_check.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "kvox/common/command_tables.h"
#include "kvox/common/device_names.h"
#include "libkvox/model/tables.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {
namespace {

using client::Buffer;
using client::Direction;
using client::Path;
using client::Processor;

std::string NameOf(const char* kind, int number) {
  return number == kNone ? "" : fmt::format("{}{}", kind, number);
}

const char* OnOff(bool on) {
  return on ? "on" : "off";
}

std::string Text(const Processor& row) {
  return fmt::format("{} '{}' '{}' {}", row.type, row.input, row.output, OnOff(row.enabled));
}

std::string Text(Buffer row) {
  std::sort(row.consumers.begin(), row.consumers.end());
  return fmt::format("'{}' [{}] {}", row.producer, fmt::join(row.consumers, ","),
                     OnOff(row.enabled));
}

std::string Text(const Path& row) {
  const auto station = [](const std::string& name, bool enabled) {
    if (name.empty()) return std::string(kNotConnected);
    return name + (enabled ? "" : kGraphDisabled);
  };
  const std::string stations[] = {station(row.source, row.source_enabled),
                                  station(row.tapout, true),
                                  station(row.processor, row.processor_enabled),
                                  station(row.inject, true), station(row.sink, row.sink_enabled)};
  return fmt::format("{}", fmt::join(stations, kGraphArrow));
}

std::string Text(const ExpectedTap& tap) {
  return fmt::format("{} tapout {} inject {} block {} jitter {}", OnOff(tap.enabled), tap.tapout,
                     tap.inject, tap.block_length.value_or(0), tap.jitter_buffer.value_or(0));
}

/// Fills in name and state of the tap that is bound to a buffer. Of several the daemon shows the
/// one that the co-processor lists first, which the spare one never is.
void FindTap(const ExpectedGraph& graph, int buffer, int ExpectedTap::*end, std::string& name,
             bool& enabled) {
  for (const Stream& stream : Streams()) {
    const ExpectedTap tap = graph.TapOf(stream);
    if (buffer == kNone || tap.*end != buffer) continue;
    name = stream.TapName();
    enabled = tap.enabled;
  }
}

Path ExpectedPath(const ExpectedGraph& graph, const Processor& row,
                  const ExpectedProcessor& processor) {
  Path path{.source = "",
            .tapout = row.input,
            .processor = row.id,
            .processor_enabled = row.enabled,
            .inject = row.output,
            .sink = ""};
  FindTap(graph, processor.tapout, &ExpectedTap::tapout, path.source, path.source_enabled);
  FindTap(graph, processor.inject, &ExpectedTap::inject, path.sink, path.sink_enabled);
  return path;
}

void CompareTables(const char* what, const GraphTables::Table& expected,
                   const GraphTables::Table& listed, std::vector<std::string>& differences) {
  for (const auto& [name, row] : expected) {
    const auto found = listed.find(name);
    if (found != listed.end() && found->second == row) continue;
    differences.push_back(fmt::format("{} {}: expected \"{}\", listed \"{}\"", what, name, row,
                                      found == listed.end() ? "nothing" : found->second));
  }
  for (const auto& [name, row] : listed) {
    if (expected.contains(name)) continue;
    differences.push_back(fmt::format("{} {}: not expected, listed \"{}\"", what, name, row));
  }
}

/// A setting that was never set may have any value.
void CompareTap(const std::string& name, const ExpectedTap& expected, const TapStats& stats,
                std::vector<std::string>& differences) {
  ExpectedTap actual{stats.enabled, stats.tapout, stats.inject, stats.block_length,
                     stats.jitter_buffer};
  if (!expected.block_length) actual.block_length.reset();
  if (!expected.jitter_buffer) actual.jitter_buffer.reset();
  if (actual == expected) return;
  differences.push_back(fmt::format("tap {}: expected \"{}\", the co-processor has \"{}\"", name,
                                    Text(expected), Text(actual)));
}

/// Packets on their way while a sample is taken.
constexpr uint64_t kInFlight = 2;

bool Differ(uint64_t one, uint64_t other) {
  return std::max(one, other) - std::min(one, other) > kInFlight || (one == 0) != (other == 0);
}

}  // namespace

GraphTables ExpectedTables(const ExpectedGraph& graph) {
  GraphTables tables;
  std::map<int, Buffer> tapouts;
  std::map<int, Buffer> injects;
  for (const auto& [code, processor] : graph.processors()) {
    const Processor row{.id = ToString(code),
                        .type = ToString(processor.type),
                        .input = NameOf(kTapOutBufferPrefix, processor.tapout),
                        .output = NameOf(kInjectBufferPrefix, processor.inject),
                        .enabled = processor.enabled};
    tables.processors[row.id] = Text(row);
    tables.paths[row.id] = Text(ExpectedPath(graph, row, processor));
    tapouts[processor.tapout].consumers.push_back(row.id);
    injects[processor.inject].producer = row.id;
  }
  for (const Stream& stream : Streams()) {
    Buffer& tapout = tapouts[stream.buffer];
    tapout.enabled = graph.tapouts().contains(stream.buffer);
    tables.tapouts[NameOf(kTapOutBufferPrefix, stream.buffer)] = Text(tapout);
  }
  for (const int number : InjectNumbers()) {
    Buffer& inject = injects[number];
    inject.enabled = graph.injects().contains(number);
    tables.injects[NameOf(kInjectBufferPrefix, number)] = Text(inject);
  }
  return tables;
}

GraphTables ReadTables(DaemonClient& daemon) {
  const auto lines = [&](const char* name, auto method) {
    return daemon.Call(name, method).result.lines;
  };
  const auto read = [](const auto& reply, auto name, GraphTables::Table& table) {
    for (const auto& row : reply.rows) table[row.*name] = Text(row);
  };
  GraphTables tables;
  read(client::ParseProcessors(lines("ListProcessors", &IKvox::ListProcessors)), &Processor::id,
       tables.processors);
  read(client::ParseBuffers(Direction::kTapOut,
                            lines("ListTapOutBuffers", &IKvox::ListTapOutBuffers)),
       &Buffer::name, tables.tapouts);
  read(client::ParseBuffers(Direction::kInject,
                            lines("ListInjectBuffers", &IKvox::ListInjectBuffers)),
       &Buffer::name, tables.injects);
  read(client::ParseGraph(lines("ShowGraph", &IKvox::ShowGraph)), &Path::processor, tables.paths);
  return tables;
}

std::vector<std::string> Differences(const ExpectedGraph& graph, const GraphTables& listed,
                                     const SimStatus& actual) {
  std::vector<std::string> differences;
  const GraphTables expected = ExpectedTables(graph);
  CompareTables("processor", expected.processors, listed.processors, differences);
  CompareTables("tap-out buffer", expected.tapouts, listed.tapouts, differences);
  CompareTables("inject buffer", expected.injects, listed.injects, differences);
  CompareTables("path of", expected.paths, listed.paths, differences);
  for (const Stream& stream : Taps()) {
    if (!graph.taps().contains(stream.Id())) continue;
    const auto found = actual.taps.find(stream.TapName());
    if (found == actual.taps.end()) continue;
    CompareTap(stream.TapName(), graph.TapOf(stream), found->second, differences);
  }
  return differences;
}

std::vector<std::string> FlowDifferences(const ExpectedGraph& graph, const SimStatus& before,
                                         const SimStatus& after) {
  std::vector<std::string> differences;
  std::map<int, uint64_t> read;  // packets, by tap-out buffer
  for (const Stream& tap : Taps()) {
    const std::string name = tap.TapName();
    const uint64_t sent = after.taps.at(name).sent - before.taps.at(name).sent;
    const uint64_t exact = after.taps.at(name).exact - before.taps.at(name).exact;
    const int tapout = graph.TapOf(tap).tapout;
    const bool streams = graph.SourceOf(tapout) == tap.Id();
    if (streams) read[tapout] = sent;
    if (streams != (sent > 0)) {
      differences.push_back(
          fmt::format("tap {} is to be {}: {} packets sent", name, streams ? "on" : "off", sent));
    }
    if (exact > 0 && !graph.Flows(tap)) {
      differences.push_back(
          fmt::format("tap {}: {} packets came back, but its audio is off", name, exact));
    }
  }
  std::map<int, uint64_t> written;  // by inject buffer
  for (const auto& [id, processor] : graph.processors()) {
    if (graph.injects().contains(processor.inject))
      written[processor.inject] += read[processor.tapout];
  }
  for (const int inject : InjectNumbers()) {
    const uint64_t came = after.injects.at(inject) - before.injects.at(inject);
    if (!Differ(came, written[inject])) continue;
    differences.push_back(fmt::format("inject{}: {} packets came, {} were read for it", inject,
                                      came, written[inject]));
  }
  return differences;
}

}  // namespace kvox::campaign
