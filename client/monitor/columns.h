// The columns of top: their names, their texts, and how rows are sorted by them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/monitor/top_model.h"

namespace kvox::client {

struct Column {
  const char* name;  // for --sort and the help line
  const char* title;
  int width;      // of the column, without the blank behind it
  char key;       // a letter of the name, which sorts by it
  bool measured;  // only shown with --measure
  std::string (*text)(const Row&);
  std::optional<double> (*number)(const Row&);  // the sort key; nullptr: the text
};

/// All columns, or those that need no measurements.
std::vector<const Column*> ColumnsOf(bool measured);

/// The column of that name or key; nullptr when there is none.
const Column* FindColumn(const std::vector<const Column*>& columns, const std::string& name);
const Column* FindColumn(const std::vector<const Column*>& columns, int key);

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
std::string HeaderLine(const std::vector<const Column*>& columns);
std::string LineOf(const std::vector<const Column*>& columns, const Row& row);

}  // namespace kvox::client
