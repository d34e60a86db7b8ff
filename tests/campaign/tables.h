// The daemon's answers as rows: what ListProcessors, ListTapOutBuffers, ListInjectBuffers,
// ShowGraph and TapList print for people. Pure.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "kvox/common/four_cc.h"

namespace kvox::campaign {

/// Rows of words. Lines of an answer may hold several rows.
using Rows = std::vector<std::vector<std::string>>;

Rows SplitRows(const std::vector<std::string>& lines);

struct ProcessorRow {
  std::string type;
  std::string tapout;  // name of the buffer; "-": none
  std::string inject;
  bool enabled = false;

  bool operator==(const ProcessorRow&) const = default;
};

struct BufferRow {
  std::string name;
  std::set<std::string> processors;  // that read a tap-out, or the one that writes an inject
  bool enabled = false;

  bool operator==(const BufferRow&) const = default;
};

enum class Direction { kTapOut, kInject };

// Rows that do not have the shape of the table are left out; headers are among these.
std::map<std::string, ProcessorRow> ParseProcessors(const std::vector<std::string>& lines);
std::map<int, BufferRow> ParseBuffers(const std::vector<std::string>& lines, Direction direction);
/// The line of each processor without the blanks around it.
std::map<std::string, std::string> ParseGraph(const std::vector<std::string>& lines);

}  // namespace kvox::campaign
