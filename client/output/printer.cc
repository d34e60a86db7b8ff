#include "client/output/printer.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "client/model/tables.h"
#include "client/output/standard_streams.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr int kSchema = 1;

// The library quotes texts and prints numbers; the spacing between them is ours.

std::string Json(std::nullptr_t) {
  return "null";
}
std::string Json(bool value) {
  return value ? "true" : "false";
}
std::string Json(int64_t value) {
  return std::to_string(value);
}
std::string Json(double value) {
  return nlohmann::json(value).dump();
}
std::string Json(const std::string& value) {
  return nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}
template <typename T>
std::string Json(const std::vector<T>& values) {
  std::string text;
  for (const T& value : values) text += (text.empty() ? "" : ", ") + Json(value);
  return "[" + text + "]";
}

std::string Column(std::nullptr_t) {
  return "-";
}
std::string Column(bool value) {
  return value ? "1" : "0";
}
std::string Column(int64_t value) {
  return std::to_string(value);
}
std::string Column(double value) {
  return nlohmann::json(value).dump();
}
std::string Column(std::string value) {
  // A tab or a line's end within a column would look like the next one.
  std::replace_if(
      value.begin(), value.end(), [](char c) { return c >= '\0' && c < ' '; }, '?');
  return value.empty() ? "-" : value;
}
template <typename T>
std::string Column(const std::vector<T>& values) {
  std::string text;
  for (const T& value : values) text += (text.empty() ? "" : ",") + Column(value);
  return text.empty() ? "-" : text;
}

std::string JoinedFields(const Fields& record) {
  std::string text;
  for (const auto& [key, value] : record) {
    text +=
        (text.empty() ? "" : ", ") +
        fmt::format("\"{}\": {}", key, std::visit([](const auto& v) { return Json(v); }, value));
  }
  return text;
}

/// Replaces every byte of a control character, which might steer the terminal, with '?'; tabs and
/// newlines stay.
std::string SanitizeForTerminal(std::string text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    if ((byte < ' ' && byte != '\n' && byte != '\t') || byte == 0x7f) {
      text[i] = '?';
    } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {  // U+0080 to U+009F in UTF-8
      text[i] = text[i + 1] = '?';
    }
  }
  return text;
}

bool Wanted(Color color, int stream) {
  if (color != Color::kAuto) return color == Color::kAlways;
  const char* const refused = getenv("NO_COLOR");
  return (refused == nullptr || *refused == '\0') && isatty(stream) == 1;
}

}  // namespace

std::string AsJson(const Fields& record) {
  return "{" + JoinedFields(record) + "}";
}

std::string AsColumns(const Fields& record) {
  std::string text;
  for (const auto& [key, value] : record) {
    text += (text.empty() ? "" : "\t") + std::visit([](const auto& v) { return Column(v); }, value);
  }
  return text;
}

bool Out::colored() const {
  return Wanted(color_, STDOUT_FILENO);
}

std::string Out::BoldHeader(const std::string& line) {
  return line.starts_with("  Id  ") ? "\x1b[1m" + line + "\x1b[0m" : line;
}

void Out::Text(const std::vector<std::string>& lines, Paint paint) const {
  std::string text;
  const bool painted = colored();
  for (const std::string& told : SplitLines(lines)) {
    const std::string line = SanitizeForTerminal(told);
    text += (painted ? paint(line) : line) + "\n";
  }
  PrintOut(text);
}

void Out::List(const std::vector<std::string>& lines, const char* key,
               const std::vector<Fields>& records, int unread, const Fields& head,
               Paint paint) const {
  if (format_ == Format::kText) return Text(lines, paint);
  if (unread > 0) {
    Message(
        fmt::format("{} row(s) of the daemon's answer cannot be read and are left out; without "
                    "--json and --short they are shown as they are",
                    unread));
  }
  std::string text;
  if (format_ == Format::kJson) {
    for (const Fields& record : records) text += (text.empty() ? "" : ", ") + AsJson(record);
    const std::string fields = JoinedFields(head);
    text = fmt::format("{{\"schema\": {}{}{}, \"{}\": [{}], \"unread_rows\": {}}}\n", kSchema,
                       fields.empty() ? "" : ", ", fields, key, text, unread);
  } else {
    for (const Fields& record : records) text += AsColumns(record) + "\n";
  }
  PrintOut(text);
}

void Out::One(const std::vector<std::string>& lines, const Fields& record) const {
  switch (format_) {
    case Format::kText:
      return Text(lines);
    case Format::kJson: {
      const std::string fields = JoinedFields(record);
      return PrintOut(
          fmt::format("{{\"schema\": {}{}{}}}\n", kSchema, fields.empty() ? "" : ", ", fields));
    }
    case Format::kShort:
      return record.empty() ? Text(lines) : PrintOut(AsColumns(record) + "\n");
  }
}

void Out::Message(const std::string& text) const {
  const bool red = Wanted(color_, STDERR_FILENO);
  fprintf(stderr, "%skvoxctl:%s %s\n", red ? "\x1b[31m" : "", red ? "\x1b[0m" : "",
          SanitizeForTerminal(ValidUtf8(text)).c_str());
}

}  // namespace kvox::client
