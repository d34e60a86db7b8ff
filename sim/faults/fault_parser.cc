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

void ReadOptional(TableReader& table, const char* key, std::optional<double>& value, double low,
                  double high) {
  double number = 0;
  if (table.Find(key) == nullptr) return;
  table.Read(key, number, low, high);
  value = number;
}

/// One of the names, which must be there when `required`.
void ReadName(TableReader& table, const char* key, const std::vector<std::string>& names,
              bool required, std::string& value) {
  const std::string expected = fmt::format("one of {}", fmt::join(names, ", "));
  const toml::node* node = required ? table.Require(key, expected) : table.Find(key);
  if (node == nullptr) return;
  const auto text = node->is_string() ? node->value<std::string>() : std::nullopt;
  if (!text || std::ranges::count(names, *text) == 0) return table.Unfit(*node, key, expected);
  value = *text;
}

struct OrderRow {
  const char* name;
  NodeOrder order;
};
constexpr OrderRow kOrders[] = {{"usual", NodeOrder::kUsual},
                                {"reverse", NodeOrder::kReverse},
                                {"shuffle", NodeOrder::kShuffle}};

/// The devices whose name begins with `kind`.
std::vector<std::string> DevicesOf(const FaultTargets& targets, std::string_view kind) {
  std::vector<std::string> devices;
  for (const std::string& device : targets.devices) {
    if (device.starts_with(kind)) devices.push_back(device);
  }
  return devices;
}

/// What the rows read from and into.
struct Reading {
  TableReader& table;
  const FaultTargets& targets;
  FaultSpec& spec;
};

void ReadOrder(Reading& in) {
  const OrderRow* row = in.table.ReadChoice("order", kOrders, false);
  if (row != nullptr) in.spec.order = row->order;
}

void ReadDevice(Reading& in, std::string_view kind) {
  ReadName(in.table, "device", DevicesOf(in.targets, kind), true, in.spec.device);
}

void ReadMissing(Reading& in) {
  ReadName(in.table, "missing", in.targets.devices, false, in.spec.missing);
}

void ReadMissingFor(Reading& in) {
  ReadOptional(in.table, "missing_for", in.spec.missing_for, 0, kMaxSeconds);
}

/// One key of a fault: how it is read, with its range. Several rows may read the same member.
struct KeyRow {
  std::string_view key;
  void (*read)(Reading&);
};
constexpr KeyRow kKeys[] = {
    {"tap", [](Reading& in) { ReadName(in.table, "tap", in.targets.taps, false, in.spec.tap); }},
    {"opcode", [](Reading& in) { in.table.Read("opcode", in.spec.opcode, 1, 65535); }},
    {"device", [](Reading& in) { ReadDevice(in, ""); }},
    {"tapout", [](Reading& in) { ReadDevice(in, "tapout"); }},
    {"inject", [](Reading& in) { ReadDevice(in, "inject"); }},
    {"for",
     [](Reading& in) { ReadOptional(in.table, "for", in.spec.seconds, 0.001, kMaxSeconds); }},
    {"gap", [](Reading& in) { in.table.Read("gap", in.spec.gap, 0.0, kMaxPause); }},
    {"order", ReadOrder},
    {"spacing", [](Reading& in) { in.table.Read("spacing", in.spec.spacing, 0.0, kMaxPause); }},
    {"missing", ReadMissing},
    {"missing_for", ReadMissingFor},
    {"times", [](Reading& in) { in.table.Read("times", in.spec.times, 1, 10'000); }},
    {"delay", [](Reading& in) { in.table.Read("delay", in.spec.delay, 0.0, 60.0); }},
    {"status", [](Reading& in) { in.table.Read("status", in.spec.status, -32768, 32767); }},
    {"replace", [](Reading& in) { in.table.Read("replace", in.spec.replace); }},
    {"torn", [](Reading& in) { in.table.Read("torn", in.spec.torn); }},
    {"burst", [](Reading& in) { in.table.Read("packets", in.spec.packets, 2, 256); }},
    {"jump", [](Reading& in) { in.table.Read("packets", in.spec.packets, 1, 1'000'000); }},
    {"bytes", [](Reading& in) { in.table.Read("bytes", in.spec.bytes, 1, kMaxBytes); }},
    {"channels", [](Reading& in) { in.table.Read("channels", in.spec.channels, 1, kMaxChannels); }},
};

/// What every kind of a group knows.
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

void ReadTrigger(TableReader& table, const toml::table& node, FaultGroup group, FaultSpec& spec) {
  table.Read("at", spec.at, 0.0, kMaxSeconds);
  table.Read("seed", spec.seed, 0, kMaxCount);
  ReadOptional(table, "probability", spec.probability, 0, 1);
  uint64_t number = 0;
  if (table.Find("after") != nullptr) {
    table.Read("after", number, 0, kMaxCount);
    spec.after = number;
  }
  if (table.Find("count") != nullptr) {
    table.Read("count", number, 1, kMaxCount);
    spec.count = number;
  }
  if (!IsTimed(group) || spec.after || spec.probability) return;
  for (const char* key : {"count", "tap"}) {
    if (!node.contains(key)) continue;
    table.Fail(*node.get(key), key,
               "goes with packets; expected the key after or probability beside it");
  }
}

bool Has(std::string_view keys, std::string_view key) {
  for (size_t at = 0; at < keys.size();) {
    const size_t end = std::min(keys.find(' ', at), keys.size());
    if (keys.substr(at, end - at) == key) return true;
    at = end + 1;
  }
  return false;
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

FaultSpec ReadFault(const toml::table& node, const std::string& path, const FaultTargets& targets,
                    Report& report) {
  FaultSpec spec;
  TableReader table(node, path, report);
  const FaultKindRow* row = table.ReadChoice("kind", FaultKinds(), true);
  if (row == nullptr) return spec;
  spec.kind = row->kind;
  spec.delay = row->defaults.delay;
  spec.packets = row->defaults.packets;
  spec.bytes = row->defaults.bytes;
  ReadTrigger(table, node, row->group, spec);
  Reading in{table, targets, spec};
  for (const KeyRow& key : kKeys) {
    if (Has(row->keys, key.key) || Has(KeysOf(row->group), key.key)) key.read(in);
  }
  table.RejectUnknownKeys();
  return spec;
}

bool ParseFault(std::span<const std::string> words, const FaultTargets& targets, FaultSpec& spec,
                std::string& error) {
  toml::table table;
  if (!words.empty()) table.insert("kind", words.front());
  for (const std::string& word : words.subspan(words.empty() ? 0 : 1)) {
    const size_t equals = word.find('=');
    const std::string key = word.substr(0, equals);
    if (equals == word.npos || key.empty() || table.contains(key)) {
      error = fmt::format("{}: found {}; expected each key once, as KEY=VALUE", key, word);
      return false;
    }
    Insert(table, key, word.substr(equals + 1));
  }
  Report report;
  spec = ReadFault(table, "", targets, report);
  error = report.error;
  return !report.failed();
}

}  // namespace kvox::sim
