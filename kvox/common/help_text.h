// What the programs' --help is made of, and their manual pages. Pure.
#pragma once

#include <string>
#include <vector>

namespace kvox {

/// A line of a help text: an option, a variable, an exit status, and what there is to say of it.
struct HelpRow {
  std::string what;
  std::string help;
};

/// The rows in two columns under a heading, with an empty line before it; nothing without rows.
std::string HelpSection(const std::string& heading, const std::vector<HelpRow>& rows);

}  // namespace kvox
