#include "tests/campaign/tables.h"

#include <iterator>
#include <sstream>

namespace kvox::campaign {
namespace {

bool IsFlag(const std::string& word) {
  return word == "0" || word == "1";
}

bool IsNumber(const std::string& word) {
  return !word.empty() && word.find_first_not_of("0123456789") == word.npos && word.size() < 6;
}

std::set<std::string> SplitNames(const std::string& names) {
  std::set<std::string> split;
  std::istringstream stream(names);
  for (std::string name; std::getline(stream, name, ',');) {
    if (name != "-") split.insert(name);
  }
  return split;
}

}  // namespace

Rows SplitRows(const std::vector<std::string>& lines) {
  Rows rows;
  for (const std::string& line : lines) {
    std::istringstream stream(line);
    for (std::string row; std::getline(stream, row);) {
      std::istringstream words(row);
      rows.emplace_back(std::istream_iterator<std::string>(words),
                        std::istream_iterator<std::string>());
    }
  }
  return rows;
}

std::map<std::string, ProcessorRow> ParseProcessors(const std::vector<std::string>& lines) {
  std::map<std::string, ProcessorRow> processors;
  for (const auto& row : SplitRows(lines)) {
    if (row.size() != 5 || !IsFlag(row[4])) continue;
    processors[row[0]] = {row[1], row[2], row[3], row[4] == "1"};
  }
  return processors;
}

std::map<int, BufferRow> ParseBuffers(const std::vector<std::string>& lines, Direction direction) {
  std::map<int, BufferRow> buffers;
  for (const auto& row : SplitRows(lines)) {
    if (row.size() != 5 || !IsNumber(row[0]) || !IsFlag(row[4])) continue;
    const std::string& names = direction == Direction::kTapOut ? row[3] : row[2];
    buffers[std::stoi(row[0])] = {row[1], SplitNames(names), row[4] == "1"};
  }
  return buffers;
}

std::map<std::string, std::string> ParseGraph(const std::vector<std::string>& lines) {
  std::map<std::string, std::string> graph;
  for (const auto& row : SplitRows(lines)) {
    if (row.size() < 9) continue;  // TAP --> BUFFER --> PROCESSOR --> BUFFER --> TAP
    std::string line;
    std::vector<std::string> nodes = {""};
    for (const std::string& word : row) {
      line += (line.empty() ? "" : " ") + word;
      if (word == "-->") {
        nodes.emplace_back();
      } else {
        nodes.back() += (nodes.back().empty() ? "" : " ") + word;
      }
    }
    if (nodes.size() == 5) graph[nodes[2].substr(0, nodes[2].find(' '))] = line;
  }
  return graph;
}

}  // namespace kvox::campaign
