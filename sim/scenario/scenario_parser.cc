#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <tuple>

#include "kvox/common/kvox_packet.h"
#include "kvox/toml/table_reader.h"
#include "sim/audio/samples.h"
#include "sim/faults/fault_parser.h"
#include "sim/scenario/scenario.h"

namespace kvox::sim {
namespace {

constexpr int kMaxDevice = 254;  // 255 means "no buffer"
constexpr int kMaxChannels = 32;
constexpr double kMinLevel = -144;

struct SourceRow {
  const char* name;
  SourceKind kind;
  void (*read)(TableReader&, SourceConfig&, const KvoxTapFormat&);
};
constexpr SourceRow kSources[] = {
    {"silence", SourceKind::kSilence, [](TableReader&, SourceConfig&, const KvoxTapFormat&) {}},
    {"sine", SourceKind::kSine,
     [](TableReader& table, SourceConfig& source, const KvoxTapFormat& format) {
       table.Read("frequency", source.frequency, 0.0, format.sample_rate / 2.0);
       table.Read("level", source.level, kMinLevel, 0.0);
     }},
    {"sweep", SourceKind::kSweep,
     [](TableReader& table, SourceConfig& source, const KvoxTapFormat& format) {
       source.to = std::min(source.to, format.sample_rate / 2.0);
       table.Read("from", source.from, 0.0, format.sample_rate / 2.0);
       table.Read("to", source.to, 0.0, format.sample_rate / 2.0);
       table.Read("seconds", source.seconds, 0.001, 3600.0);
       table.Read("level", source.level, kMinLevel, 0.0);
     }},
    {"noise", SourceKind::kNoise,
     [](TableReader& table, SourceConfig& source, const KvoxTapFormat&) {
       table.Read("seed", source.seed, 0, std::numeric_limits<int64_t>::max());
       table.Read("level", source.level, kMinLevel, 0.0);
     }},
    {"loop", SourceKind::kLoop, [](TableReader&, SourceConfig&, const KvoxTapFormat&) {}},
    {"wav", SourceKind::kWav,
     [](TableReader& table, SourceConfig& source, const KvoxTapFormat&) {
       table.ReadFile("file", source.file, source.where);
       table.Read("repeat", source.repeat);
     }},
};

struct SinkRow {
  const char* name;
  SinkKind kind;
};
constexpr SinkRow kSinks[] = {{"none", SinkKind::kNone}, {"wav", SinkKind::kWav}};

struct FormatRow {
  const char* name;
  Kvox::DataFormat format;
  int default_bits;
};
constexpr FormatRow kFormats[] = {{"int", Kvox::DataFormat::INT, 16},
                                  {"float", Kvox::DataFormat::FLOAT, 32},
                                  {"sulaw", Kvox::DataFormat::SULAW, 8}};

bool IsNameCharacter(char c) {
  return c > ' ' && c < 0x7f && c != '"' && c != '\\';
}

void ReadName(TableReader& table, TapConfig& tap) {
  constexpr char kExpected[] = "1 to 4 printable characters without blanks, quotes or backslashes";
  const toml::node& node = table.Require("name", kExpected);
  const std::string text = table.Text(node, "name", kExpected);
  if (text.empty() || text.size() > 4 || !std::ranges::all_of(text, IsNameCharacter)) {
    table.Unfit(node, "name", kExpected);
  }
  for (size_t i = 0; i < 4; ++i) {
    tap.name = tap.name << 8 | (i < text.size() ? static_cast<uint8_t>(text[i]) : 0u);
  }
}

void ReadFormat(TableReader& table, TapConfig& tap, const toml::table& at) {
  KvoxTapFormat& format = tap.format;
  format = {.sample_rate = 48000, .channels = 1};
  table.Read("rate", format.sample_rate, 8000, 192000);
  table.Read("channels", format.channels, 1, kMaxChannels);
  const FormatRow& row = table.ReadChoice("format", kFormats, &kFormats[0]);
  int bits = row.default_bits;
  table.Read("bits", bits, 8, 32);
  format.data_format = static_cast<uint8_t>(row.format);
  format.bytes_per_sample = static_cast<uint8_t>(bits / 8);
  if (bits % 8 != 0 || !EncodingOf(format)) {
    table.Fail(at, "bits",
               fmt::format("{} {} cannot be carried; expected int 16, int 32, float 32 "
                           "or sulaw 8",
                           row.name, bits));
  }
  table.Read("noninterleaved", format.noninterleaved_samples, 0, kPacketMaxPayload);
  table.Read("block_length", tap.block_length, 1, kPacketMaxPayload);
  if (const auto problem = BlockProblem(format, tap.block_length)) {
    table.Fail(at, "block_length", *problem);
  }
}

void ReadCore(TableReader& table, TapConfig& tap, const Scenario& scenario) {
  const toml::node& node = table.Require("core", "one of the scenario's cores");
  table.Read("core", tap.core, 0, 255);
  if (std::ranges::count(scenario.cores, tap.core) > 0) return;
  table.Fail(node, "core",
             fmt::format("there is no core {}; expected one of {}", tap.core,
                         fmt::join(scenario.cores, ", ")));
}

TapConfig ReadTap(const toml::table& node, const std::string& path, const Scenario& scenario,
                  const TomlOrigin& origin) {
  TapConfig tap;
  TableReader table(node, path, origin);
  ReadName(table, tap);
  table.Read("index", tap.index, 0, 255);
  ReadCore(table, tap, scenario);
  ReadFormat(table, tap, node);
  if (const toml::table* at = table.ReadTable("source")) {
    TableReader source(*at, path + ".source", origin);
    const SourceRow& row = source.ReadChoice("kind", kSources);
    tap.source.kind = row.kind;
    row.read(source, tap.source, tap.format);
    source.RejectUnknownKeys();
  }
  if (const toml::table* at = table.ReadTable("sink")) {
    TableReader sink(*at, path + ".sink", origin);
    tap.sink.kind = sink.ReadChoice("kind", kSinks).kind;
    if (tap.sink.kind == SinkKind::kWav) sink.ReadFile("file", tap.sink.file, tap.sink.where);
    sink.RejectUnknownKeys();
  }
  table.RejectUnknownKeys();
  return tap;
}

void ReadTaps(TableReader& root, Scenario& scenario, const TomlOrigin& origin) {
  const toml::node& node = root.Require("tap", "at least one [[tap]] table");
  if (!node.is_array_of_tables()) root.Unfit(node, "tap", "[[tap]] tables");
  std::set<std::tuple<uint8_t, FourCc, uint8_t>> seen;
  std::set<std::filesystem::path> files;  // of sources and sinks
  for (const toml::node& element : *node.as_array()) {
    const std::string path = fmt::format("tap[{}]", scenario.taps.size());
    const TapConfig& tap =
        scenario.taps.emplace_back(ReadTap(*element.as_table(), path, scenario, origin));
    files.insert(tap.source.file.lexically_normal());
    if (seen.emplace(tap.core, tap.name, tap.index).second) continue;
    root.Fail(element, path + ".name",
              fmt::format("core {} has a tap {} already; expected another name or index", tap.core,
                          DisplayName(tap)));
  }
  for (size_t i = 0; i < scenario.taps.size(); ++i) {
    const SinkConfig& sink = scenario.taps[i].sink;
    if (sink.kind == SinkKind::kNone || files.insert(sink.file.lexically_normal()).second) continue;
    root.Fail(*node.as_array()->get(i), fmt::format("tap[{}].sink.file", i),
              fmt::format("{} is a source or another sink; expected a file of its own",
                          sink.file.string()));
  }
}

void ReadFaults(TableReader& root, Scenario& scenario, const TomlOrigin& origin) {
  const toml::node* node = root.Find("fault");
  if (node == nullptr) return;
  if (!node->is_array_of_tables()) root.Unfit(*node, "fault", "[[fault]] tables");
  const FaultTargets targets = TargetsOf(scenario);
  for (const toml::node& element : *node->as_array()) {
    const std::string path = fmt::format("fault[{}]", scenario.faults.size());
    scenario.faults.push_back(ReadFault(*element.as_table(), path, targets, origin));
  }
  if (scenario.faults.size() > kMaxFaults) {
    root.Fail(*node, "fault",
              fmt::format("found {}; expected {} at most", scenario.faults.size(), kMaxFaults));
  }
}

}  // namespace

FaultTargets TargetsOf(const Scenario& scenario) {
  FaultTargets targets{.taps = {}, .devices = {"kvo", "control"}};
  for (const TapConfig& tap : scenario.taps) targets.taps.push_back(DisplayName(tap));
  for (const int id : scenario.injects) targets.devices.push_back(fmt::format("inject{}", id));
  for (const int id : scenario.tapouts) targets.devices.push_back(fmt::format("tapout{}", id));
  return targets;
}

std::string DisplayName(const TapConfig& tap) {
  return fmt::format("{}.{}", ToString(tap.name), tap.index);
}

std::optional<std::string> BlockProblem(const KvoxTapFormat& format, uint64_t block_length) {
  const uint64_t bytes = block_length * FrameSize(format);
  // Readers take a device in multiples of 8 bytes; the header is one.
  if (bytes == 0 || bytes > kPacketMaxPayload || bytes % 8 != 0) {
    return fmt::format("blocks of {} frames have {} bytes; expected a multiple of 8 up to {}",
                       block_length, bytes, kPacketMaxPayload / 8 * 8);
  }
  const uint32_t run = format.noninterleaved_samples;
  if (run > 1 && block_length % run != 0) {
    return fmt::format("blocks of {} frames do not hold whole runs; expected a multiple of {}",
                       block_length, run);
  }
  return std::nullopt;
}

Scenario ParseScenario(std::string_view text, const std::string& origin,
                       const std::filesystem::path& directory) {
  const toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    throw std::invalid_argument(fmt::format("{}:{}: syntax: {}; expected TOML", origin,
                                            parsed.error().source().begin.line,
                                            parsed.error().description()));
  }
  const TomlOrigin file{origin, directory};
  TableReader root(parsed.table(), "", file);
  Scenario scenario;
  scenario.cores = root.ReadList("cores", 255);
  scenario.tapouts = root.ReadList("tapouts", kMaxDevice);
  scenario.injects = root.ReadList("injects", kMaxDevice);
  ReadTaps(root, scenario, file);
  ReadFaults(root, scenario, file);
  root.RejectUnknownKeys();
  return scenario;
}

Scenario LoadScenario(const std::filesystem::path& file) {
  errno = 0;
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream text;
  if (stream) text << stream.rdbuf();  // which also fails, without errno, for an empty file
  if (!stream || errno != 0) {
    throw std::invalid_argument(fmt::format("{}: cannot be read ({}); expected a scenario in TOML",
                                            file.string(), std::strerror(errno)));
  }
  return ParseScenario(text.str(), file.string(), file.parent_path());
}

}  // namespace kvox::sim
