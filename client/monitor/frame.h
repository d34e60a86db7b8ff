// The screen of top as text. Pure.
#pragma once

#include <string>
#include <vector>

#include "client/monitor/columns.h"

namespace kvox::client {

struct Size {
  int lines = 24;
  int columns = 80;
};

enum class Style { kPlain, kBold, kReverse };

struct FrameLine {
  std::string text;
  Style style = Style::kPlain;
};

/// What the user has chosen.
struct View {
  Order order = {};
  int first = 0;  // the row at the top
};

/// Keys that are no characters.
enum SpecialKey { kKeyUp = 1000, kKeyDown, kKeyPageUp, kKeyPageDown, kKeyHome, kKeyEnd };

/// Does what a key asks for: a column's key, small or capital, sorts by it and, pressed again,
/// turns the order round; others move through `rows` rows, of which a page shows `page`. Keys that
/// mean nothing change nothing.
void ApplyKey(int key, const std::vector<const Column*>& columns, int rows, int page, View& view);

/// How many rows a screen of that size shows; at least one.
int PageOf(const Size& size);

/// At most as many lines as the screen has, none wider than it: what is known of the daemon, the
/// titles, the rows from view.first on, and the keys. A small screen goes without the latter, then
/// without the titles, then without the first line. Moves view.first to where there are rows.
std::vector<FrameLine> DrawFrame(const std::string& head, std::vector<Row> rows,
                                 const std::vector<const Column*>& columns, const Size& size,
                                 View& view);

}  // namespace kvox::client
