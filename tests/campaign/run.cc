#include "tests/campaign/run.h"

#include <fmt/format.h>

namespace kvox::campaign {

int Run::Execute() {
  bool passed = false;
  try {
    passed = Body();
  } catch (const SimError& error) {
    testbed_.Healthy();
    failures().Add("{}", error.what());
  }
  RunContext& run = testbed_.run();
  PrintSummary();
  fmt::print("{} commands within {:.0f} s, {} of them refused because of faults; slowest {}\n",
             run.commands.load(), Seconds(), run.refused.load(),
             testbed_.processes().SlowestCall());
  fmt::print(
      "{:.0f} % of the time threads waited for a processor; {} commands were refused "
      "because of that\n",
      100 * run.lag.Share(), run.starved.load());
  fmt::print("{} lines are missing from the daemon's log\n",
             testbed_.processes().log().lost_lines());
  for (const std::string& failure : failures().all()) fmt::print("FAULT: {}\n", failure);
  if (!passed) {
    testbed_.KeepLogs(options_.logs);
    fmt::print("The logs of kvoxd and kvosim are in {}.\n", options_.logs.string());
  }
  fmt::print("{}.\nrepeat with: {}\n", passed ? "Passed" : "FAILED", options_.repeat);
  return passed ? 0 : 1;
}

}  // namespace kvox::campaign
