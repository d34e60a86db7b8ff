#include "sim/fault_parser.h"

#include <cstdlib>
#include <limits>
#include <utility>

namespace kvox::sim {
namespace {

constexpr double kMaxSeconds = 1'000'000;
constexpr double kMaxPause = 3600;  // seconds between two steps of a fault
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

struct KeyRow {
  std::string_view key;
  void (*read)(TableReader&, const FaultTargets&, FaultSpec&);
};
constexpr KeyRow kKeys[] = {
    {"device",
     [](TableReader& table, const FaultTargets& targets, FaultSpec& spec) {
       ReadName(table, "device", targets.devices, true, spec.device);
     }},
    {"for", [](TableReader& table, const FaultTargets&,
               FaultSpec& spec) { ReadOptional(table, "for", spec.seconds, 0.001, kMaxSeconds); }},
    {"gap", [](TableReader& table, const FaultTargets&,
               FaultSpec& spec) { table.Read("gap", spec.gap, 0.0, kMaxPause); }},
    {"order",
     [](TableReader& table, const FaultTargets&, FaultSpec& spec) {
       if (const OrderRow* row = table.ReadChoice("order", kOrders, false)) spec.order = row->order;
     }},
    {"spacing", [](TableReader& table, const FaultTargets&,
                   FaultSpec& spec) { table.Read("spacing", spec.spacing, 0.0, kMaxPause); }},
    {"missing",
     [](TableReader& table, const FaultTargets& targets, FaultSpec& spec) {
       ReadName(table, "missing", targets.devices, false, spec.missing);
     }},
    {"missing_for",
     [](TableReader& table, const FaultTargets&, FaultSpec& spec) {
       ReadOptional(table, "missing_for", spec.missing_for, 0, kMaxSeconds);
     }},
    {"times", [](TableReader& table, const FaultTargets&,
                 FaultSpec& spec) { table.Read("times", spec.times, 1, 10'000); }},
};

void ReadTrigger(TableReader& table, FaultSpec& spec) {
  table.Read("at", spec.at, 0.0, kMaxSeconds);
  table.Read("seed", spec.seed, 0, kMaxCount);
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
  ReadTrigger(table, spec);
  for (const KeyRow& key : kKeys) {
    if (Has(row->keys, key.key)) key.read(table, targets, spec);
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
