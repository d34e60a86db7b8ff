// Whether a process grows: what it has, again and again in the same state, judged by its trend.
#pragma once

#include <utility>
#include <vector>

#include "tests/campaign/findings.h"
#include "tests/campaign/trend.h"
#include "tests/support/proc.h"

namespace kvox::campaign {

/// Whether memory tells anything: under a sanitizer what was freed is kept.
bool MemoryIsMeasurable();

/// One thread.
class ResourceTrend {
 public:
  void Add(double seconds, const ResourceUsage& resources) {
    samples_.emplace_back(seconds, resources);
  }

  /// Prints the trend of each figure over the samples from `warm_up_s` on, and adds a finding for
  /// each that rises.
  void Judge(double warm_up_s, Findings& findings) const;

 private:
  std::vector<std::pair<double, ResourceUsage>> samples_;
};

}  // namespace kvox::campaign
