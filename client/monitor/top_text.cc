#include "client/monitor/top_text.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <type_traits>
#include <utility>

#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

using Number = std::optional<double>;

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ",") + name;
  return text.empty() ? "-" : text;
}

std::string Connection(const Row& row) {
  if (row.from.empty() && row.to.empty()) return "-";
  return Joined(row.from) + " > " + Joined(row.to);
}

template <Number Metrics::*metric>
Number Get(const Row& row) {
  return row.metrics ? (*row.metrics).*metric : std::nullopt;
}

template <Number Metrics::*metric>
std::string Milliseconds(const Row& row) {
  const Number number = Get<metric>(row);
  return number ? FormatText<32>("%.3f", *number) : "-";
}

template <auto figure>
Number GetFigure(const Row& row) {
  if (!row.figures) return std::nullopt;
  const auto value = (*row.figures).*figure;
  if constexpr (std::is_same_v<decltype(value), const uint64_t>) {
    return static_cast<double>(value);
  } else {
    return value;
  }
}

/// With as many digits as say something: 0.02, 3.1, 42.
template <auto figure>
std::string FigureText(const Row& row) {
  const Number number = GetFigure<figure>(row);
  if (!number) return "-";
  const bool whole = *number >= 100 || *number == std::floor(*number);
  return FormatText<32>("%.*f", whole ? 0 : *number < 1 ? 3 : 1, *number);
}

std::string Percent(const Row& row) {
  const Number share = Get<&Metrics::active_share>(row);
  return share ? FormatText<32>("%.1f%%", *share * 100) : "-";
}

Number Blocks(const Row& row) {
  return row.metrics ? Number(static_cast<double>(row.metrics->blocks)) : std::nullopt;
}

// The connection comes last: it may be of any length.
const Column kColumns[] = {
    {"object", "OBJECT", 9, 'o', false, [](const Row& row) { return std::string(row.object); },
     nullptr},
    {"name", "NAME", 9, 'n', false, [](const Row& row) { return row.name; }, nullptr},
    {"type", "TYPE", 4, 't', false,
     [](const Row& row) { return row.type.empty() ? "-" : row.type; }, nullptr},
    {"state", "STATE", 7, 's', false,
     [](const Row& row) {
       return std::string(row.gave_up ? "gave up" : row.enabled ? "on" : "off");
     },
     [](const Row& row) { return Number(row.enabled ? 1 : 0); }},
    {"lost", "LOST", 6, 'l', false, FigureText<&StreamFigures::lost>,
     GetFigure<&StreamFigures::lost>},
    {"late", "LATE", 6, 'e', false, FigureText<&StreamFigures::late>,
     GetFigure<&StreamFigures::late>},
    {"jitter", "JITTER", 6, 'j', false, FigureText<&StreamFigures::jitter_ms>,
     GetFigure<&StreamFigures::jitter_ms>},
    {"busy", "BUSY", 6, 'u', false, FigureText<&StreamFigures::busy_us>,
     GetFigure<&StreamFigures::busy_us>},
    {"period", "PERIOD", 8, 'p', true, Milliseconds<&Metrics::period_ms>, Get<&Metrics::period_ms>},
    {"active", "ACTIVE", 7, 'a', true, Milliseconds<&Metrics::active_ms>, Get<&Metrics::active_ms>},
    {"max", "MAX", 7, 'm', true, Milliseconds<&Metrics::max_active_ms>,
     Get<&Metrics::max_active_ms>},
    {"share", "SHARE", 6, 'h', true, Percent, Get<&Metrics::active_share>},
    {"blocks", "BLOCKS", 8, 'b', true,
     [](const Row& row) { return row.metrics ? std::to_string(row.metrics->blocks) : "-"; },
     Blocks},
    {"connection", "CONNECTION", 0, 'c', false, Connection, nullptr},
};

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

/// Removes the digits that `text` starts with, and returns them without leading zeros.
std::string_view TakeDigits(std::string_view& text) {
  const size_t end = std::min(text.find_first_not_of("0123456789"), text.size());
  std::string_view digits = text.substr(0, end);
  text.remove_prefix(end);
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  return digits;
}

/// Compares numbers in the texts by value: "tapout9" sorts before "tapout10".
bool SortsBefore(std::string_view a, std::string_view b) {
  while (!a.empty() && !b.empty()) {
    if (IsDigit(a.front()) && IsDigit(b.front())) {
      const auto x = TakeDigits(a);
      const auto y = TakeDigits(b);
      if (x != y) return std::make_pair(x.size(), x) < std::make_pair(y.size(), y);
    } else {
      if (a.front() != b.front()) return a.front() < b.front();
      a.remove_prefix(1);
      b.remove_prefix(1);
    }
  }
  return a.size() < b.size();
}

std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return text;
}

std::string Trimmed(std::string text) {
  text.resize(text.find_last_not_of(' ') + 1);
  return text;
}

/// Texts are left-aligned, numbers right-aligned; the state is a text.
std::string Cell(const Column& column, const std::string& text) {
  const auto width = static_cast<size_t>(column.width);
  const std::string fill(width - std::min(width, text.size()), ' ');
  const bool is_number = column.number != nullptr && column.key != 's';
  return (is_number ? fill + text : text + fill) + " ";
}

void SortByText(std::vector<Row>& rows, const Order& order) {
  const auto text = order.column->text;
  std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) {
    return order.reversed ? SortsBefore(text(b), text(a)) : SortsBefore(text(a), text(b));
  });
}

void SortByNumber(std::vector<Row>& rows, const Order& order) {
  const auto number = order.column->number;
  std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) {
    const Number x = number(a);
    const Number y = number(b);
    if (!x || !y) return x.has_value() && !y.has_value();
    return order.reversed ? *x < *y : *x > *y;
  });
}

// How many lines a screen must have for these.
constexpr int kLinesForHead = 2;
constexpr int kLinesForTitles = 3;
constexpr int kLinesForKeys = 5;

/// Each column's name with its key in upper case.
std::string KeysLine(const Columns& columns) {
  std::string line = "q quit  sort by";
  for (const Column* const column : columns) {
    std::string name = column->name;
    const size_t at = name.find(column->key);
    if (at != name.npos) name[at] = static_cast<char>(name[at] - 'a' + 'A');
    line += " " + name;
  }
  return line + "  again: reverse  / filter";
}

constexpr int kSideStep = 10;  // columns
constexpr int kEscape = 27;

int LastFirst(int rows, int page) {
  return std::max(rows - page, 0);
}

}  // namespace

Columns ColumnsOf(bool measured) {
  Columns columns;
  for (const Column& column : kColumns) {
    if (measured || !column.measured) columns.push_back(&column);
  }
  return columns;
}

const Column* FindColumn(const Columns& columns, const std::string& name) {
  for (const Column* const column : columns) {
    if (column->name == name) return column;
  }
  return nullptr;
}

const Column* FindColumn(const Columns& columns, int key) {
  for (const Column* const column : columns) {
    if (column->key == key) return column;
  }
  return nullptr;
}

void Sort(std::vector<Row>& rows, const Order& order) {
  if (order.column == nullptr) {
    if (order.reversed) std::reverse(rows.begin(), rows.end());
  } else if (order.column->number == nullptr) {
    SortByText(rows, order);
  } else {
    SortByNumber(rows, order);
  }
}

std::string HeaderLine(const Columns& columns) {
  std::string line;
  for (const Column* const column : columns) line += Cell(*column, column->title);
  return Trimmed(std::move(line));
}

std::string LineOf(const Columns& columns, const Row& row) {
  std::string line;
  for (const Column* const column : columns) line += Cell(*column, column->text(row));
  return Trimmed(Printable(std::move(line)));
}

int PageOf(const Size& size) {
  const int others = (size.lines >= kLinesForHead) + (size.lines >= kLinesForTitles) +
                     (size.lines >= kLinesForKeys);
  return std::max(size.lines - others, 1);
}

bool Matches(const Row& row, const std::string& filter) {
  const std::string text = row.object + (" " + row.name) + " " + row.type + " " + Connection(row);
  return text.find(filter) != text.npos;
}

void EditFilter(int key, View& view) {
  if (key == '\n' || key == '\r') view.typing = false;
  if (key == kEscape) view.filter.clear(), view.typing = false;
  if (key == kKeyBackspace && !view.filter.empty()) view.filter.pop_back();
  if (key >= ' ' && key <= '~') view.filter += static_cast<char>(key);
}

void ApplyKey(int key, const Columns& columns, int rows, int page, View& view) {
  if (view.typing) return EditFilter(key, view);
  if (key == '/') {
    view.filter.clear();
    view.typing = true;
    return;
  }
  if (key == kKeyLeft) view.left = std::max(view.left - kSideStep, 0);
  if (key == kKeyRight) view.left += kSideStep;
  const struct {
    int key;
    int first;
  } moves[] = {{kKeyUp, view.first - 1},
               {kKeyDown, view.first + 1},
               {kKeyPageUp, view.first - page},
               {kKeyPageDown, view.first + page},
               {kKeyHome, 0},
               {kKeyEnd, rows}};
  for (const auto& move : moves) {
    if (move.key == key) view.first = std::clamp(move.first, 0, LastFirst(rows, page));
  }
  const int small = key >= 'A' && key <= 'Z' ? key - 'A' + 'a' : key;
  if (const Column* const column = FindColumn(columns, small)) {
    view.order = {column, column == view.order.column && !view.order.reversed};
  }
}

Style StyleOf(const Row& row, bool stale) {
  if (stale || !row.enabled) return Style::kDim;
  return row.figures && row.figures->fresh ? Style::kAlarm : Style::kPlain;
}

std::string BottomLine(const Columns& columns, const View& view) {
  if (view.typing) return "filter: " + view.filter + "_  (Enter done  Esc none)";
  return view.filter.empty() ? KeysLine(columns)
                             : "filter: " + view.filter + "  (/ another  q quit)";
}

std::vector<FrameLine> DrawFrame(const std::string& head, std::vector<Row> rows, bool stale,
                                 const Columns& columns, const Size& size, View& view) {
  std::erase_if(rows, [&](const Row& row) { return !Matches(row, view.filter); });
  const int page = PageOf(size);
  const auto count = static_cast<int>(rows.size());
  view.first = std::clamp(view.first, 0, LastFirst(count, page));
  Sort(rows, view.order);
  std::vector<FrameLine> body;
  for (int i = view.first; i < std::min(view.first + page, count); ++i) {
    const Row& row = rows[static_cast<size_t>(i)];
    body.push_back({LineOf(columns, row), StyleOf(row, stale)});
  }
  if (size.lines >= kLinesForTitles) {
    body.insert(body.begin(), {HeaderLine(columns), Style::kReverse});
  }
  size_t widest = 0;
  for (const FrameLine& line : body) widest = std::max(widest, line.text.size());
  view.left = std::clamp(view.left, 0, std::max(static_cast<int>(widest) - size.columns, 0));
  for (FrameLine& line : body) line.text.erase(0, static_cast<size_t>(view.left));
  if (size.lines >= kLinesForHead) {
    body.insert(body.begin(), {head, stale ? Style::kAlarm : Style::kBold});
  }
  if (size.lines >= kLinesForKeys) {
    body.resize(static_cast<size_t>(size.lines) - 1);
    body.push_back({BottomLine(columns, view), Style::kReverse});
  }
  for (FrameLine& line : body) {
    if (line.style == Style::kReverse) {
      line.text.resize(std::max(line.text.size(), static_cast<size_t>(size.columns)), ' ');
    }
    line.text.resize(std::min(line.text.size(), static_cast<size_t>(size.columns)));
  }
  return body;
}

}  // namespace kvox::client
