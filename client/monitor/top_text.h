// The text of top: its columns, how rows are sorted by them, and the screen.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/monitor/top_model.h"

namespace kvox::client {

struct Column {
  const char* name;  // for --sort and the help line
  const char* title;
  int width;      // of the column, without the following blank
  char key;       // a letter of the name, which sorts by it
  bool measured;  // only shown with --measure
  std::string (*text)(const Row&);
  std::optional<double> (*number)(const Row&);  // the sort key; nullptr: the text
};

using Columns = std::vector<const Column*>;

/// All columns, or those that need no measurements.
Columns ColumnsOf(bool measured);

/// The column of that name or key; nullptr when there is none.
const Column* FindColumn(const Columns& columns, const std::string& name);
const Column* FindColumn(const Columns& columns, int key);

/// The order of rows.
struct Order {
  const Column* column = nullptr;  // nullptr: the daemon's order
  bool reversed = false;
};

/// Texts from A to Z, with numbers in them by value; numbers from the largest down. Rows without a
/// value come last in either direction, and equal ones keep their order.
void Sort(std::vector<Row>& rows, const Order& order);

/// The columns' titles and a row's texts, aligned; characters that a terminal might not show, or
/// might interpret, as '?'.
std::string HeaderLine(const Columns& columns);
std::string LineOf(const Columns& columns, const Row& row);

// The whole screen.

struct Size {
  int lines = 24;
  int columns = 80;
};

enum class Style { kPlain, kBold, kReverse, kDim, kAlarm };

struct FrameLine {
  std::string text;
  Style style = Style::kPlain;
};

/// What the user has chosen.
struct View {
  Order order = {};
  int first = 0;            // the row at the top
  int left = 0;             // the column at the left
  std::string filter = {};  // rows must contain it
  bool typing = false;      // keys are for the filter
};

/// Keys that are not characters.
enum SpecialKey {
  kKeyUp = 1000,
  kKeyDown,
  kKeyPageUp,
  kKeyPageDown,
  kKeyHome,
  kKeyEnd,
  kKeyLeft,
  kKeyRight,
  kKeyBackspace
};

/// Handles a key: a column's key, in either case, sorts by it and, pressed again, reverses the
/// order; '/' begins a filter; others scroll through `rows` rows, of which a page shows `page`, and
/// sideways. Unknown keys do nothing.
void ApplyKey(int key, const Columns& columns, int rows, int page, View& view);

/// How many rows a screen of that size shows; at least one.
int PageOf(const Size& size);

/// At most as many lines as the screen has, none wider than it: the head line, the titles, the rows
/// from view.first on, and the keys. A small screen omits the keys, then the titles, then the head
/// line. What is off is dimmed, as everything is when the picture is `stale`; fresh losses stand
/// out. Clamps view.first and view.left.
std::vector<FrameLine> DrawFrame(const std::string& head, std::vector<Row> rows, bool stale,
                                 const Columns& columns, const Size& size, View& view);

}  // namespace kvox::client
