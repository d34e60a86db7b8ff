// A daemon's tables and its processors' measurements at one time.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kvox/flight/reader.h"
#include "libkvox/calls/daemon.h"
#include "libkvox/model/objects.h"

namespace kvox::client {

/// What a processor has measured since the last reading.
struct Measurement {
  int64_t blocks = 0;            // since the processor was created
  double average_period_ms = 0;  // 0 when no period was measured
  std::vector<float> active_ms;  // of the latest blocks, oldest first
};

struct Sample {
  std::vector<Processor> processors;
  std::vector<Buffer> buffers;                      // tap-out buffers first
  std::vector<TapPoint> taps;                       // where they are wanted
  std::vector<int> silent_cores;                    // that returned no tap points
  std::map<std::string, Measurement> measurements;  // by processor, where they are wanted
  std::optional<flight::FlightView> flight = {};    // its counters, where there is a log
  int unparsed = 0;                                 // rows that could not be parsed
};

/// Takes samples. One thread at a time.
class Sampler {
 public:
  struct Wanted {
    bool taps = false;
    bool measurements = false;  // reading them clears them in the daemon
  };

  explicit Sampler(Wanted wanted) : wanted_(wanted) {}

  /// Throws Failure. Enables statistics of processors that keep no times.
  Sample Read(Daemon& daemon);

  /// Undoes what Read() has changed in processors. Throws Failure.
  void Restore(Daemon& daemon);

  /// Call this when the daemon was replaced.
  void Forget() {
    resized_.clear();
    reports_health_ = true;
  }

 private:
  void Measure(Daemon& daemon, Sample& sample);

  const Wanted wanted_;
  std::set<std::string> resized_;
  bool reports_health_ = true;  // until it turns out that the daemon is too old
};

}  // namespace kvox::client
