// Many streams for a long time: nothing may be lost, and nothing may grow.
#pragma once

#include <filesystem>
#include <string>

#include "tests/campaign/phase.h"

namespace kvox::campaign {

struct SoakOptions {
  double minutes = 30;
  unsigned seed = 1;
  std::string repeat;          // the command line that does the same again
  std::filesystem::path logs;  // where they are kept when it fails
};

/// Prints a row now and then and the outcome. Answers the exit status: 0 passed, 1 failed. Throws
/// std::runtime_error when it could not begin.
int Soak(const SoakOptions& options);

}  // namespace kvox::campaign
