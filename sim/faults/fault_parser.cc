#include "sim/faults/fault_parser.h"

#include <cstdlib>
#include <limits>
#include <utility>

namespace kvox::sim {
namespace {

constexpr double kMaxSeconds = 1'000'000;
constexpr double kMaxPause = 3600;  // seconds between two steps of a fault
constexpr int64_t kMaxBytes = 65536;
constexpr int kMaxChannels = 32;
constexpr int64_t kMaxCount = std::numeric_limits<int64_t>::max();

struct OrderRow {
  const char* name;
  NodeOrder order;
};
constexpr OrderRow kOrders[] = {{"usual", NodeOrder::kUsual},
                                {"reverse", NodeOrder::kReverse},
                                {"shuffle", NodeOrder::kShuffle}};

/// Source and destination of the rows.
struct Reading {
  TableReader& table;
  const FaultTargets& targets;
  FaultConfig& config;
};

std::string ReadName(TableReader& table, const char* key, const std::vector<std::string>& names) {
  const std::string expected = fmt::format("one of {}", fmt::join(names, ", "));
  const toml::node& node = table.Require(key, expected);
  std::string name = table.Text(node, key, expected);
  if (std::ranges::count(names, name) == 0) table.Unfit(node, key, expected);
  return name;
}

/// One of the devices whose name begins with `kind`.
void ReadDevice(Reading& in, std::string_view kind) {
  std::vector<std::string> devices = in.targets.devices;
  std::erase_if(devices, [&](const std::string& device) { return !device.starts_with(kind); });
  in.config.device = ReadName(in.table, "device", devices);
}

void ReadTap(Reading& in) {
  if (in.table.Find("tap") != nullptr) in.config.tap = ReadName(in.table, "tap", in.targets.taps);
}

void ReadMissing(Reading& in) {
  if (in.table.Find("missing") == nullptr) return;
  in.config.missing = ReadName(in.table, "missing", in.targets.devices);
}

/// One key of a fault: how it is read, with its range. Several rows may read the same member.
struct KeyRow {
  std::string_view key;
  void (*read)(Reading&);
};
constexpr KeyRow kKeys[] = {
    {"tap", ReadTap},
    {"opcode", [](Reading& in) { in.table.Read("opcode", in.config.opcode, 1, 65535); }},
    {"device", [](Reading& in) { ReadDevice(in, ""); }},
    {"tapout", [](Reading& in) { ReadDevice(in, "tapout"); }},
    {"inject", [](Reading& in) { ReadDevice(in, "inject"); }},
    {"for", [](Reading& in) { in.table.Read("for", in.config.seconds, 0.001, kMaxSeconds); }},
    {"gap", [](Reading& in) { in.table.Read("gap", in.config.gap, 0.0, kMaxPause); }},
    {"order",
     [](Reading& in) {
       in.config.order = in.table.ReadChoice("order", kOrders, &kOrders[0]).order;
     }},
    {"spacing", [](Reading& in) { in.table.Read("spacing", in.config.spacing, 0.0, kMaxPause); }},
    {"missing", ReadMissing},
    {"missing_for",
     [](Reading& in) { in.table.Read("missing_for", in.config.missing_for, 0.0, kMaxSeconds); }},
    {"times", [](Reading& in) { in.table.Read("times", in.config.times, 1, 10'000); }},
    {"delay", [](Reading& in) { in.table.Read("delay", in.config.delay, 0.0, 60.0); }},
    {"status", [](Reading& in) { in.table.Read("status", in.config.status, -32768, 32767); }},
    {"replace", [](Reading& in) { in.table.Read("replace", in.config.replace); }},
    {"torn", [](Reading& in) { in.table.Read("torn", in.config.torn); }},
    {"burst", [](Reading& in) { in.table.Read("packets", in.config.packets, 2, 256); }},
    {"jump", [](Reading& in) { in.table.Read("packets", in.config.packets, 1, 1'000'000); }},
    {"bytes", [](Reading& in) { in.table.Read("bytes", in.config.bytes, 1, kMaxBytes); }},
    {"channels",
     [](Reading& in) { in.table.Read("channels", in.config.channels, 1, kMaxChannels); }},
};

/// The keys of every kind in a group.
std::string_view KeysOf(FaultGroup group) {
  switch (group) {
    case FaultGroup::kReplies:
      return "opcode for";
    case FaultGroup::kPackets:
    case FaultGroup::kDevices:
      return "tap for";
    case FaultGroup::kNodes:
      break;
  }
  return "tap";
}

void ReadTrigger(TableReader& table, FaultGroup group, FaultConfig& config) {
  table.Read("at", config.at, 0.0, kMaxSeconds);
  table.Read("seed", config.seed, 0, kMaxCount);
  table.Read("probability", config.probability, 0.0, 1.0);
  table.Read("after", config.after, 0, kMaxCount);
  table.Read("count", config.count, 1, kMaxCount);
  if (!IsTimed(group) || config.after || config.probability) return;
  for (const char* key : {"count", "tap"}) {
    if (const toml::node* node = table.Find(key)) {
      table.Fail(*node, key, "goes with packets; expected the key after or probability beside it");
    }
  }
}

/// Whether a list with blanks in between has the key.
bool Has(std::string_view keys, std::string_view key) {
  return fmt::format(" {} ", keys).find(fmt::format(" {} ", key)) != std::string::npos;
}

/// A value as TOML would have it: a number (0x too), true or false, else a text.
void Insert(toml::table& table, std::string_view key, const std::string& text) {
  char* end = nullptr;
  const auto is_all = [&] { return !text.empty() && *end == '\0'; };
  if (text == "true" || text == "false") {
    table.insert(key, text == "true");
  } else if (const int64_t whole = std::strtoll(text.c_str(), &end, 0); is_all()) {
    table.insert(key, whole);
  } else if (const double number = std::strtod(text.c_str(), &end); is_all()) {
    table.insert(key, number);
  } else {
    table.insert(key, text);
  }
}

}  // namespace

FaultConfig ReadFault(const toml::table& node, const std::string& path, const FaultTargets& targets,
                      const TomlOrigin& origin) {
  TableReader table(node, path, origin);
  const FaultKindRow& row = table.ReadChoice("kind", FaultKinds());
  FaultConfig config{.kind = row.kind};
  config.delay = row.defaults.delay;
  config.packets = row.defaults.packets;
  config.bytes = row.defaults.bytes;
  ReadTrigger(table, row.group, config);
  Reading in{table, targets, config};
  for (const KeyRow& key : kKeys) {
    if (Has(row.keys, key.key) || Has(KeysOf(row.group), key.key)) key.read(in);
  }
  table.RejectUnknownKeys();
  return config;
}

FaultConfig ParseFault(std::span<const std::string> words, const FaultTargets& targets) {
  toml::table table;
  if (!words.empty()) table.insert("kind", words.front());
  for (const std::string& word : words.subspan(words.empty() ? 0 : 1)) {
    const size_t equals = word.find('=');
    const std::string key = word.substr(0, equals);
    if (equals == word.npos || key.empty() || table.contains(key)) {
      throw std::invalid_argument(
          fmt::format("{}: found {}; expected each key once, as KEY=VALUE", key, word));
    }
    Insert(table, key, word.substr(equals + 1));
  }
  return ReadFault(table, "", targets, {});
}

}  // namespace kvox::sim
