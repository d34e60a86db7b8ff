#include "client/monitor/rows.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace kvox::client {
namespace {

std::vector<std::string> OneOrNone(const std::string& name) {
  return name.empty() ? std::vector<std::string>() : std::vector<std::string>{name};
}

Row RowOf(const Processor& processor) {
  return {.object = "processor",
          .name = processor.id,
          .type = processor.type,
          .enabled = processor.enabled,
          .from = OneOrNone(processor.input),
          .to = OneOrNone(processor.output)};
}

Row RowOf(const Buffer& buffer) {
  return {.object = buffer.direction == Direction::kTapOut ? "tap-out" : "inject",
          .name = buffer.name,
          .enabled = buffer.enabled,
          .from = OneOrNone(buffer.producer),
          .to = buffer.consumers};
}

/// In millionths: what the daemon tells as a float has no more digits that mean something.
Value Shown(const std::optional<double>& number) {
  return number ? Value(std::round(*number * 1e6) / 1e6) : Value(nullptr);
}

}  // namespace

void PeriodHistory::Add(const Sample& sample) {
  std::erase_if(periods_ms_, [&](const auto& entry) {
    const auto found = sample.measurements.find(entry.first);
    return found == sample.measurements.end() || found->second.average_period_ms <= 0;
  });
  for (const auto& [processor, measurement] : sample.measurements) {
    if (measurement.average_period_ms <= 0) continue;
    std::deque<double>& periods_ms = periods_ms_[processor];
    periods_ms.push_back(measurement.average_period_ms);
    if (periods_ms.size() > kLooks) periods_ms.pop_front();
  }
}

std::optional<double> PeriodHistory::JitterMs(const std::string& processor) const {
  const auto found = periods_ms_.find(processor);
  if (found == periods_ms_.end() || found->second.size() < 2) return std::nullopt;
  const auto [least, most] = std::minmax_element(found->second.begin(), found->second.end());
  return *most - *least;
}

Figures FiguresOf(const Measurement& measurement, std::optional<double> jitter_ms) {
  Figures figures{.blocks = measurement.blocks, .jitter_ms = jitter_ms};
  const auto& active_ms = measurement.active_ms;
  if (measurement.average_period_ms > 0) figures.period_ms = measurement.average_period_ms;
  if (active_ms.empty()) return figures;
  figures.active_ms = std::accumulate(active_ms.begin(), active_ms.end(), 0.0) /
                      static_cast<double>(active_ms.size());
  figures.max_active_ms = double{*std::max_element(active_ms.begin(), active_ms.end())};
  if (figures.period_ms) figures.active_share = *figures.active_ms / *figures.period_ms;
  return figures;
}

std::vector<Row> RowsOf(const Sample& sample, const PeriodHistory& history) {
  std::vector<Row> rows;
  for (const Processor& processor : sample.processors) {
    rows.push_back(RowOf(processor));
    const auto found = sample.measurements.find(processor.id);
    if (found == sample.measurements.end()) continue;
    rows.back().figures = FiguresOf(found->second, history.JitterMs(processor.id));
  }
  for (const Buffer& buffer : sample.buffers) rows.push_back(RowOf(buffer));
  return rows;
}

Fields FieldsOf(const Row& row) {
  const Figures figures = row.figures.value_or(Figures());
  return {{"object", std::string(row.object)},
          {"name", row.name},
          {"type", NameOr(row.type)},
          {"enabled", row.enabled},
          {"from", row.from},
          {"to", row.to},
          {"average_period_ms", Shown(figures.period_ms)},
          {"period_jitter_ms", Shown(figures.jitter_ms)},
          {"average_active_ms", Shown(figures.active_ms)},
          {"max_active_ms", Shown(figures.max_active_ms)},
          {"active_share", Shown(figures.active_share)},
          {"blocks", row.figures ? Value(figures.blocks) : Value(nullptr)}};
}

}  // namespace kvox::client
