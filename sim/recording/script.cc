#include "sim/recording/script.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "kvox/common/control_records.h"
#include "kvox/common/device_names.h"
#include "sim/coprocessor/command_handler.h"
#include "sim/devices/record_splitter.h"
#include "sim/recording/pcapng.h"

namespace kvox::sim {
namespace {

constexpr uint64_t kLongestGapNs = 3'600'000'000'000;

/// Makes a script of the records.
class Builder {
 public:
  explicit Builder(uint64_t begin_ns)
      : begin_ns_(begin_ns),
        commands_([this](std::span<std::byte> record) { AddCommand(record); }) {}

  void Add(NodeRecord record) {
    Advance(record.time_ns);
    const bool is_control = record.node == kControlDevice;
    switch (record.event) {
      case NodeEvent::kArrived:
      case NodeEvent::kLeft:
      case NodeEvent::kRights:
        if (is_control && record.event != NodeEvent::kRights) commands_.DropPartial();
        script_.steps.push_back(
            {.at_ns = at_ns_, .node = record.node, .event = record.event, .number = record.number});
        break;
      case NodeEvent::kError:
        if (!is_before_ && record.node.starts_with(kTapOutPrefix)) {
          script_.steps.push_back({.at_ns = at_ns_, .kind = Step::Kind::kEnd, .node = record.node});
        }
        break;
      case NodeEvent::kLost:
        lost_ += record.number;
        break;
      case NodeEvent::kData:
        is_control ? AddControl(record) : AddAudio(std::move(record));
        break;
      case NodeEvent::kOpened:
      case NodeEvent::kClosed:
        break;
    }
  }

  Script Finish() {
    const auto add = [&](uint64_t count, const char* text) {
      if (count > 0) script_.problems.push_back(fmt::format("{} {}", count, text));
    };
    add(lost_, "records are missing in the recording");
    add(jumps_, "times the recording's clock jumps; no time passes there");
    if (without_audio_) script_.problems.push_back("audio was left out of it: it is silence");
    return std::move(script_);
  }

 private:
  void Advance(uint64_t time_ns) {
    const bool jumps = time_ns < last_ns_ || time_ns - last_ns_ > kLongestGapNs;
    if (last_ns_ != 0 && jumps) ++jumps_;
    if (last_ns_ != 0 && !jumps) since_ns_ += time_ns - last_ns_;
    last_ns_ = time_ns;
    at_ns_ = since_ns_ - std::min(begin_ns_, since_ns_);
    is_before_ = since_ns_ < begin_ns_;
  }

  void AddControl(const NodeRecord& record) {
    if (record.to_coprocessor) {
      commands_.Feed(record.bytes);
    } else if (!script_.exchanges.empty()) {
      Exchange& last = script_.exchanges.back();
      last.replies.push_back({since_ns_ - command_ns_, record.bytes});
    }
  }

  /// One from before the begin still tells what its reply was.
  void AddCommand(std::span<const std::byte> record) {
    if (!is_before_) {
      script_.steps.push_back({.at_ns = at_ns_,
                               .kind = Step::Kind::kExpect,
                               .number = static_cast<uint32_t>(script_.exchanges.size())});
    }
    script_.exchanges.push_back(
        {.at_ns = at_ns_, .is_before = is_before_, .command = {record.begin(), record.end()}});
    command_ns_ = since_ns_;
  }

  void AddAudio(NodeRecord record) {
    without_audio_ = without_audio_ || record.length > record.bytes.size();
    if (is_before_) return;
    Piece piece{std::move(record.bytes), record.length};
    if (record.to_coprocessor) {
      script_.injected[record.node].push_back(std::move(piece));
    } else {
      script_.steps.push_back({.at_ns = at_ns_,
                               .kind = Step::Kind::kDeliver,
                               .node = std::move(record.node),
                               .piece = std::move(piece)});
    }
  }

  const uint64_t begin_ns_;
  uint64_t last_ns_ = 0;     // of the recording's clock
  uint64_t since_ns_ = 0;    // the recording's begin
  uint64_t at_ns_ = 0;       // since the script's
  uint64_t command_ns_ = 0;  // when the last one came, since the recording's begin
  bool is_before_ = false;
  uint64_t lost_ = 0;
  uint64_t jumps_ = 0;
  bool without_audio_ = false;
  RecordSplitter commands_;
  Script script_;
};

std::optional<uint8_t> NumberBehind(std::string_view prefix, std::string_view name) {
  if (!name.starts_with(prefix)) return std::nullopt;
  name.remove_prefix(prefix.size());
  uint8_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return number;
}

void AddOnce(std::vector<uint8_t>& numbers, std::optional<uint8_t> number) {
  if (number && std::ranges::find(numbers, *number) == numbers.end()) numbers.push_back(*number);
}

/// What has come back, if that is such a record.
template <typename Record>
std::optional<Record> RecordOf(const Exchange& exchange, uint16_t opcode) {
  std::vector<std::byte> bytes;
  for (const Reply& reply : exchange.replies) {
    bytes.insert(bytes.end(), reply.bytes.begin(), reply.bytes.end());
  }
  if (bytes.size() < sizeof(Record)) return std::nullopt;
  const CMD_HDR header = CommandHeader(bytes);
  if (header.opcode != opcode || header.status != 0) return std::nullopt;
  Record record;
  std::memcpy(&record, bytes.data(), sizeof record);
  return record;
}

void AddTap(const TapInfoState& state, Scenario& scenario) {
  TapConfig tap;
  tap.name = state.tap;
  tap.index = state.index;
  tap.core = state.core;
  tap.format.sample_rate = state.sample_rate;
  tap.format.channels = state.channels;
  tap.format.bytes_per_sample = state.bytes_per_sample;
  tap.block_length = state.block_length;
  const bool is_known = std::ranges::any_of(scenario.taps, [&](const TapConfig& known) {
    return known.name == tap.name && known.index == tap.index && known.core == tap.core;
  });
  if (!is_known && !BlockProblem(tap.format, tap.block_length)) scenario.taps.push_back(tap);
}

}  // namespace

std::vector<std::byte> Whole(const Piece& piece) {
  std::vector<std::byte> bytes = piece.bytes;
  bytes.resize(std::max(piece.length, bytes.size()));
  return bytes;
}

Script ReadScript(std::span<const std::byte> file, uint64_t begin_ns) {
  PcapngReader reader(file);
  Builder builder(begin_ns);
  size_t records = 0;
  std::string damage;
  try {
    for (NodeRecord record; reader.Next(record); ++records) builder.Add(std::move(record));
    if (reader.cut()) damage = fmt::format("at byte {}: the last block is cut", reader.position());
  } catch (const std::runtime_error& error) {
    if (records == 0) throw;
    damage = error.what();
  }
  Script script = builder.Finish();
  if (!damage.empty()) script.problems.push_back("the recording ends early, " + damage);
  return script;
}

Scenario ScenarioOf(const Script& script) {
  Scenario scenario;
  for (const Step& step : script.steps) {
    AddOnce(scenario.tapouts, NumberBehind(kTapOutPrefix, step.node));
    AddOnce(scenario.injects, NumberBehind(kInjectPrefix, step.node));
  }
  for (const Exchange& exchange : script.exchanges) {
    if (const auto list = RecordOf<TapListRecord>(exchange, CMD_KVOX_TAP_LIST_ID)) {
      AddOnce(scenario.cores, list->core);
    }
    if (const auto info = RecordOf<TapInfoRecord>(exchange, CMD_TAP_INFO_ID)) {
      AddTap(info->state, scenario);
    }
  }
  return scenario;
}

}  // namespace kvox::sim
