// The results: sections of rows that compare a measurement with that of a minimal program.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <optional>
#include <string>
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

struct Aim {
  enum class Of { kRatio, kValue };
  enum class Bound { kAtMost, kAtLeast };
  Of of;
  double limit;
  Bound bound = Bound::kAtMost;
};

inline Aim AtMost(double limit) {
  return {Aim::Of::kValue, limit};
}
inline Aim RatioAtMost(double limit) {
  return {Aim::Of::kRatio, limit};
}

struct Row {
  std::string what;
  std::string unit;
  double measured = 0;
  std::optional<Aim> aim = {};
  std::optional<double> bare = {};
  std::optional<double> ratio = {};  // if it is not simply measured / bare

  /// None when there is nothing to divide by.
  std::optional<double> Ratio() const;
  /// True without an aim. Compares the printed values, with two decimals.
  bool MeetsAim() const;
};

struct Section {
  std::string title;
  std::string bare_name;  // empty when nothing is compared
  std::string measured_name;
  std::vector<Row> rows = {};
};

class Report {
 public:
  /// Prints the section at once.
  void Add(Section section);

  /// How many rows have missed their aim.
  unsigned missed() const;

  /// Writes all sections as one JSON document. Throws std::runtime_error.
  void WriteJson(const std::string& path) const;

 private:
  std::vector<Section> sections_;
};

}  // namespace kvox::bench
