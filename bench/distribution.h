// What a set of measurements comes to.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

namespace kvox::bench {

/// The value that `share` (0 to 1) of the values do not exceed; 0 for none.
template <typename T>
double Percentile(std::vector<T> values, double share) {
  if (values.empty()) return 0;
  const auto last = static_cast<double>(values.size() - 1);
  const auto rank = static_cast<ptrdiff_t>(std::lround(share * last));
  std::nth_element(values.begin(), values.begin() + rank, values.end());
  return static_cast<double>(values[static_cast<size_t>(rank)]);
}

template <typename T>
double Median(std::vector<T> values) {
  return Percentile(std::move(values), 0.5);
}

}  // namespace kvox::bench
