#include "bench/report.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

namespace kvox::bench {
namespace {

double AsPrinted(double value) {
  return std::round(value * 100) / 100;
}

std::string AimText(const Row& row) {
  if (!row.aim) return "";
  const char* const bound = row.aim->bound == Aim::Bound::kAtMost ? "<=" : ">=";
  return fmt::format("{} {:g} {}", bound, row.aim->limit, row.MeetsAim() ? "met" : "MISSED");
}

void Print(const Section& section) {
  std::string text =
      fmt::format("\n{}\n{:<40}{:>12}{:>12}{:>8}  {}\n", section.title, "", section.bare_name,
                  section.measured_name, section.bare_name.empty() ? "" : "ratio", "aim");
  for (const Row& row : section.rows) {
    const auto number = [](std::optional<double> value) {
      return value ? fmt::format("{:.2f}", *value) : std::string();
    };
    const std::string what = row.unit.empty() ? row.what : row.what + ", " + row.unit;
    text += fmt::format("  {:<38}{:>12}{:>12}{:>8}  {}\n", what, number(row.bare),
                        number(row.measured), number(row.Ratio()), AimText(row));
  }
  fputs(text.c_str(), stdout);
  fflush(stdout);
}

}  // namespace

std::optional<double> Row::Ratio() const {
  if (ratio) return ratio;
  if (!bare || *bare == 0) return std::nullopt;
  return measured / *bare;
}

bool Row::MeetsAim() const {
  if (!aim) return true;
  const std::optional<double> value = aim->of == Aim::Of::kRatio ? Ratio() : measured;
  if (!value) return false;
  const double printed = AsPrinted(*value);
  return aim->bound == Aim::Bound::kAtMost ? printed <= aim->limit : printed >= aim->limit;
}

void Report::Add(Section section) {
  Print(section);
  sections_.push_back(std::move(section));
}

unsigned Report::missed() const {
  unsigned count = 0;
  for (const Section& section : sections_) {
    for (const Row& row : section.rows) count += row.MeetsAim() ? 0u : 1u;
  }
  return count;
}

void Report::WriteJson(const std::string& path) const {
  nlohmann::ordered_json document = {{"schema", 1}, {"sections", nlohmann::ordered_json::array()}};
  for (const Section& section : sections_) {
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (const Row& row : section.rows) {
      nlohmann::ordered_json entry = {{"what", row.what}, {"unit", row.unit}};
      if (row.bare) entry["bare"] = *row.bare;
      entry["measured"] = row.measured;
      if (const auto ratio = row.Ratio()) entry["ratio"] = *ratio;
      if (row.aim) {
        entry["aim"] = {{"of", row.aim->of == Aim::Of::kRatio ? "ratio" : "measured"},
                        {"bound", row.aim->bound == Aim::Bound::kAtMost ? "at most" : "at least"},
                        {"limit", row.aim->limit},
                        {"met", row.MeetsAim()}};
      }
      rows.push_back(std::move(entry));
    }
    document["sections"].push_back({{"title", section.title},
                                    {"bare", section.bare_name},
                                    {"measured", section.measured_name},
                                    {"rows", std::move(rows)}});
  }
  std::ofstream file(path);
  file << document.dump(2) << '\n' << std::flush;
  if (!file)
    throw std::runtime_error("cannot write " + path + "; name a file in a folder of yours");
}

}  // namespace kvox::bench
