// What verbs print: for people, for scripts that read JSON, for scripts that read columns.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace kvox::client {

/// What a field holds; nullptr where there is nothing.
using Value = std::variant<std::nullptr_t, bool, int64_t, double, std::string,
                           std::vector<std::string>, std::vector<double>>;

/// A name or nothing.
inline Value NameOr(const std::string& name) {
  return name.empty() ? Value(nullptr) : Value(name);
}

/// One object. Keys name their unit: "block_length_frames".
using Fields = std::vector<std::pair<const char*, Value>>;

enum class Format { kText, kJson, kShort };
enum class Color { kAuto, kAlways, kNever };

/// Prints each answer once, in the format that was asked for: text for people is what the daemon
/// said; JSON is one document on one line with "schema" first; short is a line a record, its fields
/// parted by tabs ("-" for nothing), without a header. Keys and columns are only ever added, at the
/// end. Main thread. Throws when standard output cannot be written.
class Out {
 public:
  /// Colours a line for people.
  using Paint = std::string (*)(const std::string& line);

  Out(Format format, Color color) : format_(format), color_(color) {}

  /// A list; in JSON under `key`, behind the fields of `head`. Lines are painted where there is
  /// colour, after they have been made harmless.
  void List(const std::vector<std::string>& lines, const char* key,
            const std::vector<Fields>& records, int unread = 0, const Fields& head = {},
            Paint paint = BoldHeader) const;

  /// One object, whose fields stand in the JSON document itself.
  void One(const std::vector<std::string>& lines, const Fields& record) const;

  /// A message to standard error, which names the object and the next step.
  void Message(const std::string& text) const;

  Format format() const { return format_; }
  bool json() const { return format_ == Format::kJson; }
  /// True when standard output is to be coloured.
  bool colored() const;

 private:
  static std::string BoldHeader(const std::string& line);
  void Text(const std::vector<std::string>& lines, Paint paint = BoldHeader) const;

  const Format format_;
  const Color color_;
};

/// The record as JSON: {"id": "pass", "enabled": true}. Pure.
std::string AsJson(const Fields& record);

/// The record as one line of columns, without its end. Pure.
std::string AsColumns(const Fields& record);

}  // namespace kvox::client
