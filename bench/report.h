// The outcome: sections of rows that hold a measurement against the least a program can do.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kvox::bench {

struct Aim {
  enum class Of { kRatio, kValue };
  enum class Bound { kAtMost, kAtLeast };
  Of of;
  double limit;
  Bound bound = Bound::kAtMost;
};

struct Row {
  std::string what;
  std::string unit;
  std::optional<double> bare;
  double measured = 0;
  std::optional<double> ratio;  // where it is not simply measured / bare
  std::optional<Aim> aim;

  /// None when there is nothing to divide by.
  std::optional<double> Ratio() const;
  /// True without an aim. Compared as printed, to two digits behind the point.
  bool MeetsAim() const;
};

struct Section {
  std::string title;
  std::string bare_name;  // empty when nothing is compared
  std::string measured_name;
  std::vector<Row> rows;
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
