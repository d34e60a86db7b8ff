// Building blocks of the programs' --help and manual pages.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace kvox {

/// A line of a help text: an option, a variable or an exit status, and what it means.
struct HelpRow {
  std::string what;
  std::string help;
};

/// The rows in two columns under a heading, after an empty line; "" without rows.
inline std::string HelpSection(const std::string& heading, const std::vector<HelpRow>& rows) {
  if (rows.empty()) return "";
  size_t width = 0;
  for (const HelpRow& row : rows) width = std::max(width, row.what.size());
  std::string text = "\n" + heading + ":\n";
  for (const HelpRow& row : rows) {
    text += "  " + row.what + std::string(width - row.what.size() + 2, ' ') + row.help + "\n";
  }
  return text;
}

}  // namespace kvox
