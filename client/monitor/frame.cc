#include "client/monitor/frame.h"

#include <algorithm>

namespace kvox::client {
namespace {

// How many lines a screen must have for these.
constexpr int kLinesForHead = 2;
constexpr int kLinesForTitles = 3;
constexpr int kLinesForKeys = 5;

/// Each column's name with its key in upper case.
std::string KeysLine(const std::vector<const Column*>& columns) {
  std::string line = "q quit  sort by";
  for (const Column* const column : columns) {
    std::string name = column->name;
    const size_t at = name.find(column->key);
    if (at != name.npos) name[at] = static_cast<char>(name[at] - 'a' + 'A');
    line += " " + name;
  }
  return line + "  again: reverse";
}

int LastFirst(int rows, int page) {
  return std::max(rows - page, 0);
}

}  // namespace

int PageOf(const Size& size) {
  const int others = (size.lines >= kLinesForHead) + (size.lines >= kLinesForTitles) +
                     (size.lines >= kLinesForKeys);
  return std::max(size.lines - others, 1);
}

void ApplyKey(int key, const std::vector<const Column*>& columns, int rows, int page, View& view) {
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

std::vector<FrameLine> DrawFrame(const std::string& head, std::vector<Row> rows,
                                 const std::vector<const Column*>& columns, const Size& size,
                                 View& view) {
  const int page = PageOf(size);
  const auto count = static_cast<int>(rows.size());
  view.first = std::clamp(view.first, 0, LastFirst(count, page));
  Sort(rows, view.order);
  std::vector<FrameLine> frame;
  if (size.lines >= kLinesForHead) frame.push_back({head, Style::kBold});
  if (size.lines >= kLinesForTitles) frame.push_back({HeaderLine(columns), Style::kReverse});
  for (int i = view.first; i < std::min(view.first + page, count); ++i) {
    frame.push_back({LineOf(columns, rows[static_cast<size_t>(i)])});
  }
  if (size.lines >= kLinesForKeys) {
    frame.resize(static_cast<size_t>(size.lines) - 1);
    frame.push_back({KeysLine(columns), Style::kReverse});
  }
  for (FrameLine& line : frame) {
    if (line.style == Style::kReverse) {
      line.text.resize(std::max(line.text.size(), static_cast<size_t>(size.columns)), ' ');
    }
    line.text.resize(std::min(line.text.size(), static_cast<size_t>(size.columns)));
  }
  return frame;
}

}  // namespace kvox::client
