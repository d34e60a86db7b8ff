#include "kvox/common/help_text.h"

#include <algorithm>

namespace kvox {

std::string HelpSection(const std::string& heading, const std::vector<HelpRow>& rows) {
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
