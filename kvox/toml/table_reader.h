// Reads the tables of a TOML document strictly: every key has a type and a range. The first error
// is thrown as std::invalid_argument("FILE:LINE: KEY: what is wrong; what is expected"). Include it
// only in source files, since it includes the whole TOML library.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kvox/common/near_matches.h"
#include "kvox/toml/toml.h"

namespace kvox {

/// The document that messages refer to.
struct TomlOrigin {
  std::string file;                      // empty: what is read is a line, not a file
  std::filesystem::path directory = {};  // where relative file names in it start

  /// "FILE:LINE: KEY"
  std::string Where(const toml::node& at, std::string_view key) const {
    if (file.empty()) return std::string(key);
    return fmt::format("{}:{}: {}", file, std::max(1u, at.source().begin.line), key);
  }
};

/// Reads the keys of one table. A missing key leaves the value as it is.
class TableReader {
 public:
  /// `table` and `origin` outlive the reader; `path` is the table's own, "" for the document.
  TableReader(const toml::table& table, std::string path, const TomlOrigin& origin)
      : table_(table), path_(std::move(path)), origin_(origin) {}

  /// The node under `key`; null when it is missing.
  const toml::node* Find(std::string_view key) {
    if (std::ranges::count(known_, key) == 0) known_.emplace_back(key);
    return table_.get(key);
  }
  const toml::node& Require(std::string_view key, std::string_view expected) {
    const toml::node* node = Find(key);
    if (node == nullptr) Fail(table_, key, fmt::format("missing; expected {}", expected));
    return *node;
  }

  template <std::integral Integer>
  void Read(std::string_view key, Integer& value, int64_t low, int64_t high) {
    if (const toml::node* node = Find(key)) value = Number<Integer>(*node, key, low, high);
  }
  void Read(std::string_view key, double& value, double low, double high) {
    const toml::node* node = Find(key);
    if (node == nullptr) return;
    const auto number = node->is_number() ? node->value<double>() : std::nullopt;
    if (!number || !(*number >= low && *number <= high)) {
      Unfit(*node, key, fmt::format("a number from {} to {}", low, high));
    }
    value = *number;
  }
  void Read(std::string_view key, bool& value) {
    const toml::node* node = Find(key);
    if (node == nullptr) return;
    if (!node->is_boolean()) Unfit(*node, key, "true or false");
    value = *node->value<bool>();
  }
  void Read(std::string_view key, std::string& value, std::string_view expected) {
    if (const toml::node* node = Find(key)) value = Text(*node, key, expected);
  }
  /// Any of these into an optional value, which stays empty when the key is missing.
  template <typename Value, typename... Range>
  void Read(std::string_view key, std::optional<Value>& value, Range... range) {
    if (Find(key) != nullptr) Read(key, value.emplace(), range...);
  }

  /// A file name, as a path from the document's directory; `where` is set for later messages.
  void ReadFile(std::string_view key, std::filesystem::path& file, std::string& where) {
    const toml::node& node = Require(key, "a file name");
    const std::string text = Text(node, key, "a file name");
    if (text.empty()) Unfit(node, key, "a file name");
    file = origin_.directory / text;
    where = origin_.Where(node, KeyPath(key));
  }

  /// The row whose member `name` equals the key's value; `otherwise` when the key is missing, which
  /// is then allowed.
  template <typename Rows, typename Row = std::ranges::range_value_t<Rows>>
  const Row& ReadChoice(std::string_view key, const Rows& rows, const Row* otherwise = nullptr) {
    std::string expected = "one of ";
    for (const auto& row : rows) {
      expected += fmt::format("{}\"{}\"", &row == &*std::begin(rows) ? "" : ", ", row.name);
    }
    if (otherwise != nullptr && Find(key) == nullptr) return *otherwise;
    const toml::node& node = Require(key, expected);
    const std::string text = Text(node, key, expected);
    const auto found = std::ranges::find(rows, text, &Row::name);
    if (found == std::end(rows)) Unfit(node, key, expected);
    return *found;
  }

  /// Different numbers from 0 to `high`.
  std::vector<uint8_t> ReadList(std::string_view key, int64_t high) {
    constexpr char kExpected[] = "a list of numbers";
    const toml::node& node = Require(key, kExpected);
    if (!node.is_array()) Unfit(node, key, kExpected);
    std::vector<uint8_t> values;
    for (const toml::node& element : *node.as_array()) {
      const auto value = Number<uint8_t>(element, key, 0, high);
      if (std::ranges::count(values, value) > 0) {
        Fail(element, key, fmt::format("{} is listed twice; expected it once", value));
      }
      values.push_back(value);
    }
    return values;
  }

  /// Null when the key is missing.
  const toml::table* ReadTable(std::string_view key) {
    const toml::node* node = Find(key);
    if (node != nullptr && !node->is_table()) Unfit(*node, key, "a table such as { kind = ... }");
    return node == nullptr ? nullptr : node->as_table();
  }

  /// To be called last.
  void RejectUnknownKeys() const {
    for (const auto& [key, node] : table_) {
      if (std::ranges::count(known_, key.str()) > 0) continue;
      const std::string near = DidYouMean(std::string(key.str()), known_);
      Fail(node, key.str(),
           fmt::format("unknown key; {}{}expected one of {}", near, near.empty() ? "" : " ",
                       fmt::join(known_, ", ")));
    }
  }

  [[noreturn]] void Fail(const toml::node& at, std::string_view key,
                         std::string_view problem) const {
    throw std::invalid_argument(fmt::format("{}: {}", origin_.Where(at, KeyPath(key)), problem));
  }
  /// Throws an error with what was found and what is expected.
  [[noreturn]] void Unfit(const toml::node& node, std::string_view key,
                          std::string_view expected) const {
    std::ostringstream found;
    if (node.is_value()) {
      constexpr auto kOneLine =
          toml::toml_formatter::default_flags & ~toml::format_flags::allow_multi_line_strings;
      found << toml::toml_formatter(node, kOneLine);
    } else {
      found << node.type();
    }
    Fail(node, key, fmt::format("found {}; expected {}", found.str(), expected));
  }

  /// The text of a node, which has to be one.
  std::string Text(const toml::node& node, std::string_view key, std::string_view expected) const {
    if (!node.is_string()) Unfit(node, key, expected);
    return *node.value<std::string>();
  }

 private:
  template <std::integral Integer>
  Integer Number(const toml::node& node, std::string_view key, int64_t low, int64_t high) const {
    const auto number = node.is_integer() ? node.value<int64_t>() : std::nullopt;
    if (!number || *number < low || *number > high) {
      Unfit(node, key, fmt::format("a whole number from {} to {}", low, high));
    }
    return static_cast<Integer>(*number);
  }
  std::string KeyPath(std::string_view key) const {
    return path_.empty() ? std::string(key) : fmt::format("{}.{}", path_, key);
  }

  const toml::table& table_;
  const std::string path_;
  const TomlOrigin& origin_;
  std::vector<std::string> known_;
};

}  // namespace kvox
