// Faults, one after the other and together, with audio flowing and clients at work; after each the
// daemon has to be as if nothing had been.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/campaign/fault_plan.h"

namespace kvox::campaign {

struct CampaignOptions {
  uint64_t seed = 1;
  uint64_t count = 100;  // faults
  bool quick = false;    // without the kinds that take long
  Ms time{};             // no new fault after that; 0: as long as it takes
  std::string only;      // name of a kind; empty: all
  std::string repeat;    // the command line that does the same again
  std::filesystem::path logs;
};

/// Prints a table and the outcome. Answers the exit status: 0 passed, 1 failed. Throws
/// std::runtime_error when it could not begin.
int RunCampaign(const CampaignOptions& options);

}  // namespace kvox::campaign
