// Detects growth of a process from its resources, sampled repeatedly in the same state.
#pragma once

#include <utility>
#include <vector>

#include "tests/campaign/run_context.h"
#include "tests/support/proc.h"

namespace kvox::campaign {

struct Sample {
  double seconds;
  double value;
};

/// The rise from the first sample to the last by the robust slope of Theil and Sen: the median of
/// the slopes between any two samples. Up to a quarter of the samples may be outliers. 0 for fewer
/// than two samples.
double RobustRise(const std::vector<Sample>& samples);

/// Whether memory can be judged: a sanitizer keeps what was freed.
bool MemoryIsMeasurable();

class ResourceTrend {
 public:
  void Add(double seconds, const ResourceUsage& resources) {
    samples_.emplace_back(seconds, resources);
  }

  /// Prints the trend of each resource over the samples from `warm_up_s` on, and adds a failure for
  /// each that rises.
  void Judge(double warm_up_s, FailureLog& failures) const;

 private:
  std::vector<std::pair<double, ResourceUsage>> samples_;
};

}  // namespace kvox::campaign
