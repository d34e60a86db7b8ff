// The texts of kvoxd's help and manual page.
#pragma once

#include <string>
#include <vector>

#include "kvox/common/help_text.h"

namespace kvox {

/// Options, signals, exit statuses.
std::vector<HelpRow> UsageOptions();
std::vector<HelpRow> UsageSignals();
std::vector<HelpRow> UsageExits();

/// One sentence.
const char* UsageSummary();

/// All of `kvoxd --help`.
std::string Usage();

}  // namespace kvox
