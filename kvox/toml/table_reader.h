// Reads the tables of a TOML document strictly: every key has a type and a range, and what is wrong
// is told by line, key and expectation. For one source file's own use.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kvox/common/near_matches.h"
#include "kvox/toml/toml.h"

namespace kvox {

/// Where messages come from, and the first of them.
struct Report {
  std::string origin;
  std::filesystem::path directory;
  std::string error;

  bool failed() const { return !error.empty(); }
  std::string Where(const toml::node& at, std::string_view key) const {
    if (origin.empty()) return std::string(key);  // what was read is a line, not a file
    return fmt::format("{}:{}: {}", origin, std::max(1u, at.source().begin.line), key);
  }
  void Fail(const toml::node& at, std::string_view key, std::string_view problem) {
    if (!failed()) error = fmt::format("{}: {}", Where(at, key), problem);
  }
};

/// Reads the keys of one table, each once, and reports the ones nobody asked for.
class TableReader {
 public:
  TableReader(const toml::table& table, std::string path, Report& report)
      : table_(table), path_(std::move(path)), report_(report) {}

  /// The node under `key`; null when it is not there.
  const toml::node* Find(std::string_view key) {
    if (std::ranges::count(known_, key) == 0) known_.emplace_back(key);
    return table_.get(key);
  }
  const toml::node* Require(std::string_view key, std::string_view expected) {
    const toml::node* node = Find(key);
    if (node == nullptr) {
      report_.Fail(table_, KeyPath(key), fmt::format("missing; expected {}", expected));
    }
    return node;
  }

  template <std::integral Integer>
  void Read(std::string_view key, Integer& value, int64_t low, int64_t high) {
    if (const toml::node* node = Find(key)) ReadNumber(*node, KeyPath(key), value, low, high);
  }
  void Read(std::string_view key, double& value, double low, double high) {
    const toml::node* node = Find(key);
    if (node == nullptr) return;
    const auto number = node->is_number() ? node->value<double>() : std::nullopt;
    if (!number || !(*number >= low && *number <= high)) {
      return Unfit(*node, key, fmt::format("a number from {} to {}", low, high));
    }
    value = *number;
  }
  void Read(std::string_view key, bool& value) {
    const toml::node* node = Find(key);
    if (node == nullptr) return;
    if (!node->is_boolean()) return Unfit(*node, key, "true or false");
    value = *node->value<bool>();
  }

  void Read(std::string_view key, std::string& value, std::string_view expected) {
    const toml::node* node = Find(key);
    if (node == nullptr) return;
    if (!node->is_string()) return Unfit(*node, key, expected);
    value = *node->value<std::string>();
  }

  /// A file name, as a path from the document's directory; `where` is told for later messages.
  void ReadFile(std::string_view key, std::filesystem::path& file, std::string& where) {
    const toml::node* node = Require(key, "a file name");
    if (node == nullptr) return;
    const auto text = node->is_string() ? node->value<std::string>() : std::nullopt;
    if (!text || text->empty()) return Unfit(*node, key, "a file name");
    file = report_.directory / *text;
    where = report_.Where(*node, KeyPath(key));
  }

  /// One of the rows' names; the row is answered, null when there is none.
  template <typename Rows>
  auto ReadChoice(std::string_view key, const Rows& rows, bool required)
      -> decltype(&*std::begin(rows)) {
    std::string names;
    for (const auto& row : rows)
      names += fmt::format("{}\"{}\"", names.empty() ? "" : ", ", row.name);
    const std::string expected = "one of " + names;
    const toml::node* node = required ? Require(key, expected) : Find(key);
    if (node == nullptr) return nullptr;
    const auto text = node->is_string() ? node->value<std::string>() : std::nullopt;
    for (const auto& row : rows) {
      if (text == row.name) return &row;
    }
    Unfit(*node, key, expected);
    return nullptr;
  }

  /// Different numbers from 0 to `high`.
  void ReadList(std::string_view key, std::vector<uint8_t>& values, int64_t high) {
    const toml::node* node = Require(key, "a list of numbers");
    if (node == nullptr) return;
    if (!node->is_array()) return Unfit(*node, key, "a list of numbers");
    for (const toml::node& element : *node->as_array()) {
      uint8_t value = 0;
      if (!ReadNumber(element, KeyPath(key), value, 0, high)) return;
      if (std::ranges::count(values, value) > 0) {
        return Fail(element, key, fmt::format("{} is listed twice; expected it once", value));
      }
      values.push_back(value);
    }
  }

  const toml::table* ReadTable(std::string_view key) {
    const toml::node* node = Find(key);
    if (node != nullptr && !node->is_table()) Unfit(*node, key, "a table such as { kind = ... }");
    return node == nullptr ? nullptr : node->as_table();
  }

  /// To be called last.
  void RejectUnknownKeys() {
    for (const auto& [key, node] : table_) {
      if (std::ranges::count(known_, key.str()) > 0) continue;
      const std::string near = DidYouMean(std::string(key.str()), known_);
      report_.Fail(node, KeyPath(key.str()),
                   fmt::format("unknown key; {}{}expected one of {}", near, near.empty() ? "" : " ",
                               fmt::join(known_, ", ")));
    }
  }

  void Fail(const toml::node& at, std::string_view key, std::string_view problem) {
    report_.Fail(at, KeyPath(key), problem);
  }
  void Unfit(const toml::node& node, std::string_view key, std::string_view expected) {
    Fail(node, key, Unexpected(node, expected));
  }
  std::string KeyPath(std::string_view key) const {
    return path_.empty() ? std::string(key) : fmt::format("{}.{}", path_, key);
  }

 private:
  static std::string Unexpected(const toml::node& node, std::string_view expected) {
    std::ostringstream found;
    if (node.is_value()) {
      constexpr auto kOneLine =
          toml::toml_formatter::default_flags & ~toml::format_flags::allow_multi_line_strings;
      found << toml::toml_formatter(node, kOneLine);
    } else {
      found << node.type();
    }
    return fmt::format("found {}; expected {}", found.str(), expected);
  }

  template <std::integral Integer>
  bool ReadNumber(const toml::node& node, const std::string& path, Integer& value, int64_t low,
                  int64_t high) {
    const auto number = node.is_integer() ? node.value<int64_t>() : std::nullopt;
    if (!number || *number < low || *number > high) {
      const std::string expected = fmt::format("a whole number from {} to {}", low, high);
      report_.Fail(node, path, Unexpected(node, expected));
      return false;
    }
    value = static_cast<Integer>(*number);
    return true;
  }

  const toml::table& table_;
  const std::string path_;
  Report& report_;
  std::vector<std::string> known_;
};

}  // namespace kvox
