// Whether a figure goes up over time. Pure.
#pragma once

#include <vector>

namespace kvox::campaign {

struct Sample {
  double seconds;
  double value;
};

/// The robust slope after Theil and Sen: the median of the slopes between any two samples, per
/// second. Up to a quarter of the samples may be anything. 0 for fewer than two samples.
double RobustSlope(const std::vector<Sample>& samples);

/// By how much the figure rose from the first sample to the last, after that slope.
double RobustRise(const std::vector<Sample>& samples);

}  // namespace kvox::campaign
