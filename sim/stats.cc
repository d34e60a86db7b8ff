#include "sim/stats.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <iterator>

#include "kvox/common/tap_format.h"

namespace kvox::sim {
namespace {

constexpr char kScenarioRow[] = "{:<10} {:>4} {:>6}  {:<38} {:<40} {}\n";

struct Column {
  const char* name;
  uint64_t (*value)(const Tap&);
};

constexpr Column kCounters[] = {
    {"streams", [](const Tap& tap) { return tap.counts.streams; }},
    {"sent", [](const Tap& tap) { return tap.counts.sent; }},
    {"dropped", [](const Tap& tap) { return tap.counts.dropped; }},
    {"skipped", [](const Tap& tap) { return tap.counts.skipped; }},
    {"unheard", [](const Tap& tap) { return tap.counts.unheard; }},
    {"withheld", [](const Tap& tap) { return tap.counts.withheld; }},
    {"received", [](const Tap& tap) { return tap.counts.received; }},
    {"exact", [](const Tap& tap) { return tap.round_trip.counts().exact; }},
    {"silent", [](const Tap& tap) { return tap.round_trip.counts().silent; }},
    {"different", [](const Tap& tap) { return tap.round_trip.counts().different; }},
    {"unknown", [](const Tap& tap) { return tap.round_trip.counts().unknown; }},
    {"missing", [](const Tap& tap) { return tap.round_trip.counts().missing; }},
    {"spoiled", [](const Tap& tap) { return tap.round_trip.counts().spoiled; }},
    {"in_flight", [](const Tap& tap) { return tap.round_trip.in_flight(); }},
    {"sink_failed", [](const Tap& tap) { return tap.counts.sink_failed; }},
};

uint64_t MeanLatency(const Tap& tap) {
  const RoundTripCounts& counts = tap.round_trip.counts();
  return counts.back == 0 ? 0 : counts.latency_sum_ns / counts.back;
}

/// Counters without a sum.
constexpr Column kGauges[] = {
    {"exact_in_row", [](const Tap& tap) { return tap.round_trip.counts().exact_in_row; }},
    {"late_max_us", [](const Tap& tap) { return tap.counts.max_late_ns / 1000; }},
    {"latency_min_us",
     [](const Tap& tap) { return tap.round_trip.counts().latency_min_ns / 1000; }},
    {"latency_mean_us", [](const Tap& tap) { return MeanLatency(tap) / 1000; }},
    {"latency_max_us",
     [](const Tap& tap) { return tap.round_trip.counts().latency_max_ns / 1000; }},
};

uint64_t Total(const Column& column, const CoProcessor& co_processor) {
  uint64_t total = 0;
  for (const Tap& tap : co_processor.taps()) total += column.value(tap);
  return total;
}

std::string BufferJson(uint8_t buffer) {
  return buffer == kNoBuffer ? "null" : std::to_string(buffer);
}

/// Joins `text(element)` of every element.
template <typename Range, typename Text>
std::string Join(const Range& range, std::string_view separator, Text text) {
  std::string joined;
  for (const auto& element : range) {
    if (!joined.empty()) joined += separator;
    joined += text(element);
  }
  return joined;
}

std::string TapJson(const Tap& tap) {
  const auto column = [&](const Column& each) {
    return fmt::format(R"("{}": {})", each.name, each.value(tap));
  };
  return fmt::format(
      R"({{"tap": "{}", "core": {}, "enabled": {}, "block_length": {}, "jitter_buffer": {}, )"
      R"("tapout": {}, "inject": {}, {}, {}}})",
      DisplayName(tap.config), tap.config.core, tap.enabled, tap.block_length, tap.jitter_buffer,
      BufferJson(tap.tapout), BufferJson(tap.inject), Join(kCounters, ", ", column),
      Join(kGauges, ", ", column));
}

std::string CommandJson(const CommandCounts::value_type& command) {
  const auto& [key, count] = command;
  return fmt::format(R"({{"opcode": {}, "name": "{}", "status": {}, "count": {}}})", key.first,
                     OpcodeName(key.first), key.second, count);
}

std::string InjectJson(const InjectCounts& inject) {
  return fmt::format(
      R"({{"inject": {}, "packets": {}, "unbound": {}, "bad_headers": {}, "torn": {}, )"
      R"("junk_bytes": {}}})",
      inject.id, inject.stream.packets, inject.unbound, inject.stream.bad_headers,
      inject.stream.torn, inject.stream.junk_bytes);
}

std::string FaultJson(const std::pair<const char*, FaultCounts>& fault) {
  const auto& [kind, counts] = fault;
  return fmt::format(R"({{"kind": "{}", "injected": {}, "active": {}, "waiting": {}}})", kind,
                     counts.injected, counts.active > 0, counts.waiting);
}

bool IsQuiet(const Tap& tap) {
  return std::ranges::all_of(kCounters, [&](const Column& each) { return each.value(tap) == 0; });
}

/// A line for each tap with packets; columns of zeros are left out.
std::string TapCountersTable(const CoProcessor& co_processor) {
  std::vector<Column> columns;
  for (const Column& column : kCounters) {
    if (Total(column, co_processor) > 0) columns.push_back(column);
  }
  if (columns.empty()) return "no packets\n";
  columns.insert(columns.end(), std::begin(kGauges), std::end(kGauges));
  const auto cell = [](const Column& column, auto value) {
    return fmt::format("{:>{}}", value, std::max<size_t>(std::string_view(column.name).size(), 8));
  };
  std::string text = fmt::format("{:<10} {:>4}  {}\n", "tap", "core",
                                 Join(columns, "  ", [&](auto& c) { return cell(c, c.name); }));
  for (const Tap& tap : co_processor.taps()) {
    if (IsQuiet(tap)) continue;
    text += fmt::format("{:<10} {:>4}  {}\n", DisplayName(tap.config), tap.config.core,
                        Join(columns, "  ", [&](auto& c) { return cell(c, c.value(tap)); }));
  }
  return text;
}

std::string SourceText(const SourceConfig& source) {
  switch (source.kind) {
    case SourceKind::kSine:
      return fmt::format("sine {} Hz, {} dB", source.frequency, source.level);
    case SourceKind::kSweep:
      return fmt::format("sweep {} to {} Hz in {} s, {} dB", source.from, source.to, source.seconds,
                         source.level);
    case SourceKind::kNoise:
      return fmt::format("noise, seed {}, {} dB", source.seed, source.level);
    case SourceKind::kWav:
      return fmt::format("{}{}", source.file.string(), source.repeat ? ", repeated" : "");
    case SourceKind::kLoop:
      return "what comes back";
    case SourceKind::kSilence:
      break;
  }
  return "silence";
}

std::string FormatText(const TapConfig& tap) {
  const KvoxTapFormat& format = tap.format;
  const char* kind = DataFormatName(static_cast<Kvox::DataFormat>(format.data_format));
  std::string text = fmt::format("{} Hz, {} ch, {}{}", format.sample_rate, format.channels, kind,
                                 format.bytes_per_sample * 8);
  if (format.noninterleaved_samples > 1) {
    text += fmt::format(", runs of {}", format.noninterleaved_samples);
  }
  return text;
}

}  // namespace

std::string StatsJson(const Stats& stats) {
  const auto total = [&](const Column& column) {
    return fmt::format(R"("{}": {})", column.name, Total(column, *stats.co_processor));
  };
  static constexpr char kFormat[] = R"({{"version": "{}", "seconds": {:.3f}, "speed": {},
 "control": {{"commands": [{}], "junk_bytes": {}, "replies_dropped": {}}},
 "taps": [{}],
 "injects": [{}],
 "faults": [{}],
 "totals": {{{}}}}}
)";
  return fmt::format(kFormat, KVOX_VERSION, stats.seconds, stats.speed,
                     Join(stats.commands, ", ", CommandJson), stats.junk_bytes,
                     stats.replies_dropped, Join(stats.co_processor->taps(), ",\n  ", TapJson),
                     Join(stats.injects, ", ", InjectJson), Join(stats.faults, ",\n  ", FaultJson),
                     Join(kCounters, ", ", total));
}

std::string StatsTable(const Stats& stats) {
  std::string text = fmt::format("after {:.3f} s\n", stats.seconds);
  for (const auto& [key, count] : stats.commands) {
    text += fmt::format("{:>8} x {} status {}\n", count, OpcodeName(key.first), key.second);
  }
  if (stats.junk_bytes > 0) text += fmt::format("{:>8} junk bytes on control\n", stats.junk_bytes);
  if (stats.replies_dropped > 0) {
    text += fmt::format("{:>8} replies dropped, nobody reads control\n", stats.replies_dropped);
  }
  text += TapCountersTable(*stats.co_processor);
  for (const InjectCounts& inject : stats.injects) {
    if (inject.stream.packets + inject.stream.junk_bytes == 0) continue;
    text +=
        fmt::format("inject {}: {} packets, {} unbound, {} bad headers, {} torn, {} junk bytes\n",
                    inject.id, inject.stream.packets, inject.unbound, inject.stream.bad_headers,
                    inject.stream.torn, inject.stream.junk_bytes);
  }
  for (const auto& [kind, counts] : stats.faults) {
    if (counts.injected > 0) text += fmt::format("{:>8} x fault {}\n", counts.injected, kind);
  }
  return text;
}

std::string ScenarioTable(const CoProcessor& co_processor, const std::filesystem::path& directory,
                          double speed) {
  std::string text =
      fmt::format("devices in {}: tap-outs {}; injects {}\ncores {}; speed {}\n",
                  directory.string(), fmt::join(co_processor.scenario().tapouts, ", "),
                  fmt::join(co_processor.scenario().injects, ", "),
                  fmt::join(co_processor.scenario().cores, ", "), speed);
  text += fmt::format(kScenarioRow, "tap", "core", "block", "format", "source", "sink");
  for (const Tap& tap : co_processor.taps()) {
    const SinkConfig& sink = tap.config.sink;
    text += fmt::format(kScenarioRow, DisplayName(tap.config), tap.config.core, tap.block_length,
                        FormatText(tap.config), SourceText(tap.config.source),
                        sink.kind == SinkKind::kNone ? "none" : sink.file.string());
  }
  return text;
}

}  // namespace kvox::sim
