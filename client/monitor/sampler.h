// What top and watch look at: the daemon's tables, and the measurements of its processors.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "client/calls/daemon.h"
#include "client/model/objects.h"

namespace kvox::client {

/// What a processor has measured since it was last asked.
struct Measurement {
  int64_t blocks = 0;            // since the processor was made
  double average_period_ms = 0;  // 0 when no period was measured
  std::vector<float> active_ms;  // of the latest blocks, oldest first
};

/// One look at the daemon.
struct Sample {
  std::vector<Processor> processors;
  std::vector<Buffer> buffers;                      // tap-out buffers first
  std::vector<TapPoint> taps;                       // where they were asked for
  std::vector<int> silent_cores;                    // that told of no tap points
  std::map<std::string, Measurement> measurements;  // by processor, where they were asked for
  int unread = 0;                                   // rows that could not be read
};

/// Takes samples. One thread at a time.
class Survey {
 public:
  struct Wanted {
    bool taps = false;
    bool measurements = false;  // reading them clears them in the daemon
  };

  explicit Survey(Wanted wanted) : wanted_(wanted) {}

  /// Throws Failure. A processor that keeps no times is told to keep some.
  Sample Read(Daemon& daemon);

  /// Lets the processors that Read() has told to keep times keep none again. Throws Failure.
  void GiveBack(Daemon& daemon);

  /// The daemon is another one from now on.
  void Forget() { keeping_.clear(); }

 private:
  void Measure(Daemon& daemon, Sample& sample);

  const Wanted wanted_;
  std::set<std::string> keeping_;
};

}  // namespace kvox::client
