#include "tests/campaign/trend.h"

#include <algorithm>

namespace kvox::campaign {

double RobustSlope(const std::vector<Sample>& samples) {
  std::vector<double> slopes;
  for (size_t i = 0; i < samples.size(); ++i) {
    for (size_t j = i + 1; j < samples.size(); ++j) {
      const double seconds = samples[j].seconds - samples[i].seconds;
      if (seconds > 0) slopes.push_back((samples[j].value - samples[i].value) / seconds);
    }
  }
  if (slopes.empty()) return 0;
  const auto middle = slopes.begin() + static_cast<std::ptrdiff_t>(slopes.size() / 2);
  std::nth_element(slopes.begin(), middle, slopes.end());
  return *middle;
}

double RobustRise(const std::vector<Sample>& samples) {
  if (samples.size() < 2) return 0;
  return RobustSlope(samples) * (samples.back().seconds - samples.front().seconds);
}

}  // namespace kvox::campaign
