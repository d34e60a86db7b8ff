#include <optional>

#include "client/state/state_file.h"
#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/near_matches.h"
#include "kvox/toml/table_reader.h"
#include "libkvox/model/lookup.h"

namespace kvox::client {
namespace {

constexpr int64_t kSchema = 1;
constexpr char kNoName[] = "a name";

/// Reads one document. Throws std::invalid_argument for the first error.
class Reader {
 public:
  Reader(const toml::table& document, const Snapshot& snapshot, const TomlOrigin& origin)
      : document_(document), snapshot_(snapshot), origin_(origin) {}

  State Read() {
    TableReader table(document_, "", origin_);
    int64_t schema = 0;
    table.Require("schema", "1");
    table.Read("schema", schema, kSchema, kSchema);
    ReadUseCases(table);
    ReadRunning(table);
    ReadAll(table, "processor", [this](TableReader& row) { ReadProcessor(row); });
    ReadAll(table, "tap", [this](TableReader& row) { ReadTap(row); });
    table.RejectUnknownKeys();
    return std::move(state_);
  }

  bool names_unknown() const { return names_unknown_; }

 private:
  /// `[[key]]`, each of them a table.
  template <typename ReadRow>
  void ReadAll(TableReader& table, const char* key, ReadRow read) {
    const toml::node* const node = table.Find(key);
    if (node == nullptr) return;
    if (!node->is_array_of_tables()) return table.Unfit(*node, key, fmt::format("[[{}]]", key));
    size_t number = 0;
    for (const toml::node& element : *node->as_array()) {
      TableReader row(*element.as_table(), fmt::format("{}[{}]", key, ++number), origin_);
      read(row);
      row.RejectUnknownKeys();
    }
  }

  /// Calls `take(name, node)` for each text of a list.
  template <typename Take>
  void ReadNames(TableReader& table, const char* key, Take take) {
    const toml::node* const node = table.Find(key);
    if (node == nullptr) return;
    if (!node->is_array()) return table.Unfit(*node, key, "a list of names");
    for (const toml::node& element : *node->as_array()) {
      if (!element.is_string()) return table.Unfit(element, key, "a list of names");
      take(*element.value<std::string>(), element);
    }
  }

  void ReadUseCases(TableReader& table) {
    ReadNames(table, "use_cases", [&](const std::string& name, const toml::node& at) {
      if (name == kTelephony) {
        state_.telephony = true;
        return;
      }
      if (!IsKnown(table, at, "use_cases", "use case", name, NamesOf(snapshot_.use_cases))) return;
      table.Fail(
          at, "use_cases",
          fmt::format("the daemon does not report whether '{}' is on; expected {} or nothing, "
                      "and what other use cases set up as processors and tap points",
                      name, kTelephony));
    });
  }

  void ReadRunning(TableReader& table) {
    ReadNames(table, "running", [&](const std::string& name, const toml::node& at) {
      if (IsKnown(table, at, "running", "tap-out buffer", name, NamesOf(snapshot_.tapouts))) {
        state_.running.insert(name);
      }
    });
  }

  void ReadProcessor(TableReader& row) {
    const std::string id = ReadName(row, "id");
    ProcessorState processor;
    processor.type = ReadName(row, "type");
    if (!CanBeProcessor(id) && client::FindProcessor(snapshot_.processors, id) == nullptr) {
      return row.Unfit(At(row, "id"), "id",
                       "up to four printable characters, with no blank at either end");
    }
    if (!IsKnown(row, At(row, "type"), "type", "processor type", processor.type, snapshot_.types)) {
      return;
    }
    ReadBuffer(row, "input", Direction::kTapOut, processor.input);
    ReadBuffer(row, "output", Direction::kInject, processor.output);
    row.Read("enabled", processor.enabled);
    ReadFlag(row, "passthrough_mode", processor.passthrough_mode);
    ReadFlag(row, "test_mode", processor.test_mode);
    ReadLength(row, "block_length_frames", kMinBlockLength, kBlockLengthStep,
               processor.block_length_frames);
    ReadLength(row, "jitter_buffer_frames", 0, 1, processor.jitter_buffer_frames);
    for (const auto& [other, there] : state_.processors) {
      if (processor.output.empty() || there.output != processor.output) continue;
      return Fail(row, "output",
                  fmt::format("processor {} writes '{}' already; expected another inject buffer",
                              other, processor.output));
    }
    if (!state_.processors.emplace(id, processor).second) {
      Fail(row, "id", fmt::format("'{}' is there twice; expected it once", id));
    }
  }

  void ReadTap(TableReader& row) {
    const std::string word = ReadName(row, "name");
    const auto name = FullName(row, word);
    if (!name) return;
    TapState tap;
    ReadBuffer(row, "tapout", Direction::kTapOut, tap.tapout);
    ReadBuffer(row, "inject", Direction::kInject, tap.inject);
    row.Read("enabled", tap.enabled);
    if (row.Find("block_length_frames") != nullptr) {
      row.Read("block_length_frames", tap.block_length_frames.emplace(), 1, INT32_MAX);
    }
    if (row.Find("jitter_buffer_frames") != nullptr) {
      row.Read("jitter_buffer_frames", tap.jitter_buffer_frames.emplace(), 0, INT16_MAX);
    }
    tap.named = true;
    if (!state_.taps.emplace(*name, tap).second) {
      Fail(row, "name", fmt::format("'{}' is there twice; expected it once", *name));
    }
  }

  /// The one tap point that is called "imic.0".
  std::optional<std::string> FullName(TableReader& row, const std::string& word) {
    std::vector<std::string> names;
    std::vector<std::string> found;
    const auto wanted = ParseTapWord(word);
    for (const TapPoint& tap : snapshot_.taps) {
      names.push_back(wanted && wanted->core ? tap.FullName() : tap.Name());
      if (word == tap.Name() || word == tap.FullName()) found.push_back(tap.FullName());
    }
    if (found.size() == 1) return found.front();
    const std::vector<int>& silent = snapshot_.missing_cores.silent;
    if (found.empty() && !silent.empty()) {
      names_unknown_ = true;
      Fail(row, "name", fmt::format("there is no tap point '{}'; {}", word, SilenceOf(silent)));
    } else if (found.empty()) {
      IsKnown(row, At(row, "name"), "name", "tap point", word, names);
    } else {
      Fail(row, "name",
           fmt::format("'{}' may be any of {}; expected one", word, fmt::join(found, " ")));
    }
    return std::nullopt;
  }

  std::string ReadName(TableReader& row, const char* key) {
    std::string name;
    const toml::node& node = row.Require(key, kNoName);
    row.Read(key, name, kNoName);
    if (name.empty()) row.Unfit(node, key, kNoName);
    return name;
  }

  void ReadBuffer(TableReader& row, const char* key, Direction direction, std::string& name) {
    row.Read(key, name, "a buffer's name");
    if (name.empty()) return;
    IsKnown(row, At(row, key), key, (std::string(NameOf(direction)) + " buffer").c_str(), name,
            NamesOf(direction == Direction::kTapOut ? snapshot_.tapouts : snapshot_.injects));
  }

  static void ReadFlag(TableReader& row, const char* key, std::optional<bool>& flag) {
    if (row.Find(key) != nullptr) row.Read(key, flag.emplace());
  }

  /// 0 where `least` is 0, else a multiple of `step` within the range.
  void ReadLength(TableReader& row, const char* key, int64_t least, int64_t step,
                  std::optional<int32_t>& frames) {
    const toml::node* const node = row.Find(key);
    if (node == nullptr) return;
    int64_t value = 0;
    row.Read(key, value, least, kMaxBlockLength);
    if (value % step != 0) row.Unfit(*node, key, fmt::format("a multiple of {}", step));
    if (value != 0 && value < kMinBlockLength) {
      row.Unfit(*node, key, fmt::format("0 or {} to {}", kMinBlockLength, kMaxBlockLength));
    }
    frames = static_cast<int32_t>(value);
  }

  bool IsKnown(TableReader& row, const toml::node& at, const char* key, const char* what,
               const std::string& name, const std::vector<std::string>& names) {
    if (std::ranges::count(names, name) > 0) return true;
    names_unknown_ = true;
    row.Fail(at, key, NotFound(what, name, names, "'kvoxctl export' shows what there is"));
    return false;
  }

  template <typename T>
  static std::vector<std::string> NamesOf(const std::vector<T>& items) {
    std::vector<std::string> names;
    for (const T& item : items) names.push_back(item.name);
    return names;
  }

  static const toml::node& At(TableReader& row, const char* key) { return *row.Find(key); }
  static void Fail(TableReader& row, const char* key, const std::string& problem) {
    row.Fail(At(row, key), key, problem);
  }

  const toml::table& document_;
  const Snapshot& snapshot_;
  const TomlOrigin& origin_;
  State state_;
  bool names_unknown_ = false;
};

}  // namespace

State ReadState(std::string_view text, const std::string& origin, const Snapshot& snapshot) {
  const toml::parse_result parsed = toml::parse(text, origin);
  if (!parsed) {
    throw Failure(kWrongUsage,
                  fmt::format("{}:{}: {}; expected TOML", origin,
                              parsed.error().source().begin.line, parsed.error().description()));
  }
  const TomlOrigin file{origin};
  Reader reader(parsed.table(), snapshot, file);
  try {
    return reader.Read();
  } catch (const std::invalid_argument& error) {
    throw Failure(reader.names_unknown() ? kNoObject : kWrongUsage, ValidUtf8(error.what()));
  }
}

}  // namespace kvox::client
