// The kinds of runs against the testbed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/campaign/testbed.h"

namespace kvox::campaign {

struct RunOptions {
  unsigned seed = 1;
  std::string repeat;          // the command line that repeats the run
  std::filesystem::path logs;  // where those of a failed run are kept
};

/// A run from the first fault to the outcome. All functions throw SimError when the simulator has
/// gone.
class Run {
 public:
  Run(const RunOptions& options, LoadProfile profile)
      : options_(options), testbed_(options.seed, profile) {}
  virtual ~Run() = default;
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  /// Runs to the end or to the first failure, and prints the outcome. Returns the exit status: 0
  /// passed, 1 failed.
  int Execute();

 protected:
  /// False when something was wrong.
  virtual bool Body() = 0;
  /// Prints what the kind of run counted.
  virtual void PrintSummary() {}

  Testbed& testbed() { return testbed_; }
  FailureLog& failures() { return testbed_.run().failures; }
  double Seconds() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

 private:
  const RunOptions options_;
  const Clock::time_point begin_ = Clock::now();
  Testbed testbed_;
};

struct CampaignOptions : RunOptions {
  uint64_t count = 100;  // faults
  bool quick = false;    // without the kinds that take long
  Ms time{};             // no new fault after that; 0: as long as it takes
  std::string only;      // name of a kind; empty: all
};

struct SoakOptions : RunOptions {
  double minutes = 30;
};

// These print a table as they run, and return the exit status. They throw std::runtime_error when
// the run could not start.

/// Faults, one after the other and together; after each the daemon has to be as before.
int RunCampaign(const CampaignOptions& options);

/// Thousands of flaps and hundreds of recoveries in a row: nothing may grow with them.
int RunEndurance(const RunOptions& options);

/// Many streams for a long time: nothing may be lost, and nothing may grow.
int RunSoak(const SoakOptions& options);

}  // namespace kvox::campaign
