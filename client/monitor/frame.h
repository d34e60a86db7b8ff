// The screen of top as text.
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

/// Keys that are not characters.
enum SpecialKey { kKeyUp = 1000, kKeyDown, kKeyPageUp, kKeyPageDown, kKeyHome, kKeyEnd };

/// Handles a key: a column's key, in either case, sorts by it and, pressed again, reverses the
/// order; others scroll through `rows` rows, of which a page shows `page`. Unknown keys do nothing.
void ApplyKey(int key, const std::vector<const Column*>& columns, int rows, int page, View& view);

/// How many rows a screen of that size shows; at least one.
int PageOf(const Size& size);

/// At most as many lines as the screen has, none wider than it: the head line, the titles, the rows
/// from view.first on, and the keys. A small screen omits the keys, then the titles, then the head
/// line. Clamps view.first to the rows.
std::vector<FrameLine> DrawFrame(const std::string& head, std::vector<Row> rows,
                                 const std::vector<const Column*>& columns, const Size& size,
                                 View& view);

}  // namespace kvox::client
