// Output of verbs: text for people, JSON or columns for scripts.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace kvox::client {

/// Objects keep the order of their keys, which name their unit: "block_length_frames". To make one,
/// include client/output/json.h.
using Json = nlohmann::ordered_json;

enum class Format { kText, kJson, kShort };
enum class Color { kAuto, kAlways, kNever };

/// Prints each result once, in the chosen format: text is what the daemon said; JSON is one
/// document on one line with "schema" first; short is a line per record, its fields separated by
/// tabs ("-" for none), without a header. Keys and columns are only ever added, at the end. Main
/// thread. Throws std::runtime_error when standard output cannot be written.
class Printer {
 public:
  /// Colors a line for people.
  using Paint = std::string (*)(const std::string& line);

  Printer(Format format, Color color) : format_(format), color_(color) {}

  /// A list of `records`, objects; in JSON under `key`, after the fields of `head`. `paint` is
  /// given lines without control characters.
  void List(const std::vector<std::string>& lines, const char* key, const Json& records,
            int unparsed, const Json& head, Paint paint = BoldHeader) const;
  void List(const std::vector<std::string>& lines, const char* key, const Json& records,
            int unparsed = 0) const;

  /// One object, whose fields are top-level in the JSON document.
  void One(const std::vector<std::string>& lines, const Json& record) const;

  /// A message to standard error, which names the object and the next step.
  void Message(const std::string& text) const;

  Format format() const { return format_; }
  bool json() const { return format_ == Format::kJson; }

 private:
  static std::string BoldHeader(const std::string& line);
  void Text(const std::vector<std::string>& lines, Paint paint = BoldHeader) const;

  Format format_;
  Color color_;
};

/// To be called first. Occupies standard descriptors that are closed, so that no socket or file
/// gets them, and keeps a reader that goes away from ending the process.
void PrepareStandardStreams();

/// Writes the text to standard output at once. Throws std::runtime_error when that fails; a reader
/// that has closed is not a failure.
void PrintOut(const std::string& text);

/// The same for text that a program may read and that contains names which others have chosen: a
/// terminal gets their control characters as escapes, "\x1b".
void PrintUnchanged(const std::string& text);

/// The same for the items of a reply, each followed by a newline. A newline within an item is
/// escaped, too, unless the items may be `tables` and an indented row follows.
void PrintItems(const std::vector<std::string>& items, bool tables);

/// On one line: {"id": "pass", "consumers": ["art0", "art1"]}
std::string AsJson(const Json& value);

/// The object's values as one line of columns, without the newline.
std::string AsColumns(const Json& record);

}  // namespace kvox::client
