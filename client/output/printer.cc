#include "client/output/printer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "client/output/json.h"
#include "client/system/files.h"
#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/model/tables.h"

namespace kvox::client {
namespace {

constexpr char kTableRowStart[] = "\n  ";
static_assert(sizeof kTableRowStart == 2 + kRowIndent);

std::string Column(const Json& value) {
  if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
  if (value.is_number()) return value.dump();
  std::string text;
  if (value.is_string()) {
    text = value.get<std::string>();
    // A tab or newline inside a column would look like the start of the next one.
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c >= '\0' && c < ' '; }, '?');
  }
  if (value.is_array()) {
    for (const Json& element : value) text += (text.empty() ? "" : ",") + Column(element);
  }
  return text.empty() ? "-" : text;
}

Json Document(const Json& fields) {
  Json document = {{"schema", 1}};
  document.update(fields);
  return document;
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

/// Divides the text at each newline that `separator` starts with, and escapes what is between.
std::string EscapeBetween(std::string_view text, std::string_view separator) {
  std::string escaped;
  size_t end = 0;
  while ((end = text.find(separator)) != text.npos) {
    escaped += EscapeControls(text.substr(0, end)) + "\n";
    text.remove_prefix(end + 1);
  }
  return escaped + EscapeControls(text);
}

bool UsesColor(Color color, int stream) {
  if (color != Color::kAuto) return color == Color::kAlways;
  const char* const no_color = getenv("NO_COLOR");
  return (no_color == nullptr || *no_color == '\0') && isatty(stream) == 1;
}

}  // namespace

void PrepareStandardStreams() {
  signal(SIGPIPE, SIG_IGN);  // which would end the process; errno reports it as well
  pollfd streams[] = {{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
  poll(streams, std::size(streams), 0);
  for (const pollfd& stream : streams) {
    // open() returns the lowest free number, which is this one. It stays open, and cannot be
    // written.
    if ((stream.revents & POLLNVAL) != 0) static_cast<void>(open("/dev/null", O_RDONLY));
  }
}

void PrintOut(const std::string& text) {
  if (text.empty()) return;
  if (WriteAll(STDOUT_FILENO, text.data(), text.size()) || errno == EPIPE) return;
  throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno) +
                           "; send it elsewhere and try again");
}

void PrintUnchanged(const std::string& text) {
  PrintOut(isatty(STDOUT_FILENO) == 1 ? EscapeBetween(text, "\n") : text);
}

void PrintItems(const std::vector<std::string>& items, bool tables) {
  const bool escapes = isatty(STDOUT_FILENO) == 1;
  std::string text;
  for (const std::string& item : items) {
    if (!escapes) {
      text += item + "\n";
    } else {
      text += (tables ? EscapeBetween(item, kTableRowStart) : EscapeControls(item)) + "\n";
    }
  }
  PrintOut(text);
}

std::string AsJson(const Json& value) {
  std::string text;
  // The library's indented form without its newlines, which are only formatting: those in texts are
  // escaped.
  for (const char c : value.dump(0, ' ', false, Json::error_handler_t::replace)) {
    if (c == '\n') {
      if (text.back() == ',') text += ' ';
    } else if (c == '\x7f') {  // a control character that it does not escape, as those below
      text += "\\u007f";
    } else if (text.ends_with('\xc2') && static_cast<unsigned char>(c) < 0xa0) {
      text.back() = '\\';
      text += FormatText<8>("u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    } else {
      text += c;
    }
  }
  return text;
}

std::string AsColumns(const Json& record) {
  std::string text;
  for (const Json& value : record) text += (text.empty() ? "" : "\t") + Column(value);
  return text;
}

std::string Printer::BoldHeader(const std::string& line) {
  return line.starts_with(kTableHeaderStart) ? "\x1b[1m" + line + "\x1b[0m" : line;
}

void Printer::Text(const std::vector<std::string>& lines, Paint paint) const {
  std::string text;
  const bool painted = UsesColor(color_, STDOUT_FILENO);
  for (const std::string& raw : SplitLines(lines)) {
    const std::string line = SanitizeForTerminal(raw);
    text += (painted ? paint(line) : line) + "\n";
  }
  PrintOut(text);
}

void Printer::List(const std::vector<std::string>& lines, const char* key, const Json& records,
                   int unparsed, const Json& head, Paint paint) const {
  if (format_ == Format::kText) return Text(lines, paint);
  if (unparsed > 0) {
    Message(
        fmt::format("{} row(s) of the daemon's reply cannot be read and are left out; to see "
                    "them as they are, omit --json and --short",
                    unparsed));
  }
  std::string text;
  if (format_ == Format::kJson) {
    Json document = Document(head);
    document[key] = records;
    document["unread_rows"] = unparsed;
    text = AsJson(document) + "\n";
  } else {
    for (const Json& record : records) text += AsColumns(record) + "\n";
  }
  PrintOut(text);
}

void Printer::List(const std::vector<std::string>& lines, const char* key, const Json& records,
                   int unparsed) const {
  List(lines, key, records, unparsed, Json::object());
}

void Printer::One(const std::vector<std::string>& lines, const Json& record) const {
  if (json()) return PrintOut(AsJson(Document(record)) + "\n");
  if (format_ == Format::kText || record.empty()) return Text(lines);
  PrintOut(AsColumns(record) + "\n");
}

void Printer::Message(const std::string& text) const {
  const bool red = UsesColor(color_, STDERR_FILENO);
  fprintf(stderr, "%skvoxctl:%s %s\n", red ? "\x1b[31m" : "", red ? "\x1b[0m" : "",
          SanitizeForTerminal(ValidUtf8(text)).c_str());
}

}  // namespace kvox::client
