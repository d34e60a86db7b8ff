#include "client/monitor/top_model.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

#include "client/output/json.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/units.h"

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
  return {.object = NameOf(buffer.direction),
          .name = buffer.name,
          .enabled = buffer.enabled,
          .gave_up = buffer.gave_up,
          .from = OneOrNone(buffer.producer),
          .to = buffer.consumers};
}

using Figures = std::map<std::string, StreamFigures>;

std::vector<Row> RowsOf(const Sample& sample, const Figures& figures) {
  std::vector<Row> rows;
  const auto take_figures = [&](const std::string& buffer) {
    if (const auto found = figures.find(buffer); found != figures.end()) {
      rows.back().figures = found->second;
    }
  };
  for (const Processor& processor : sample.processors) {
    rows.push_back(RowOf(processor));
    take_figures(processor.input);
    const auto found = sample.measurements.find(processor.id);
    if (found != sample.measurements.end()) rows.back().metrics = MetricsOf(found->second);
  }
  for (const Buffer& buffer : sample.buffers) {
    rows.push_back(RowOf(buffer));
    take_figures(buffer.name);
  }
  return rows;
}

/// In millionths: the daemon's floats have no more significant digits.
Json Rounded(const std::optional<double>& number) {
  return number ? Json(std::round(*number * 1e6) / 1e6) : Json();
}

}  // namespace

Metrics MetricsOf(const Measurement& measurement) {
  Metrics metrics{.blocks = measurement.blocks};
  const auto& active_ms = measurement.active_ms;
  if (measurement.average_period_ms > 0) metrics.period_ms = measurement.average_period_ms;
  if (active_ms.empty()) return metrics;
  metrics.active_ms = std::accumulate(active_ms.begin(), active_ms.end(), 0.0) /
                      static_cast<double>(active_ms.size());
  metrics.max_active_ms = double{*std::max_element(active_ms.begin(), active_ms.end())};
  if (metrics.period_ms) metrics.active_share = *metrics.active_ms / *metrics.period_ms;
  return metrics;
}

Json RecordOf(const Row& row) {
  const Metrics metrics = row.metrics.value_or(Metrics());
  const StreamFigures figures = row.figures.value_or(StreamFigures());
  return {{"object", row.object},
          {"name", row.name},
          {"type", OrNull(row.type)},
          {"enabled", row.enabled},
          {"from", row.from},
          {"to", row.to},
          {"average_period_ms", Rounded(metrics.period_ms)},
          {"period_jitter_ms", Rounded(figures.jitter_ms)},
          {"average_active_ms", Rounded(metrics.active_ms)},
          {"max_active_ms", Rounded(metrics.max_active_ms)},
          {"active_share", Rounded(metrics.active_share)},
          {"blocks", row.metrics ? Json(metrics.blocks) : Json()},
          {"gave_up", row.gave_up},
          {"lost", row.figures ? Json(figures.lost) : Json()},
          {"late", row.figures ? Json(figures.late) : Json()},
          {"busy_us", Rounded(figures.busy_us)}};
}

void TopModel::Update(PollResult result, const std::string& time) {
  const bool was_present = present_;
  present_ = result.sample.has_value();
  if (!present_) {
    error_ = result.error;
    if (was_present || time_.empty()) time_ = time;
    history_ = {};
    return;
  }
  time_ = time;
  took_ms_ = result.took_ms;
  const auto& flight = result.sample->flight;
  rows_ = RowsOf(*result.sample, flight ? history_.Add(*flight) : Figures());
  processors_ = result.sample->processors.size();
  unparsed_ = result.sample->unparsed;
}

std::string TopModel::Head(std::chrono::steady_clock::duration in_flight) const {
  if (in_flight >= kSlow) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(in_flight).count();
    return FormatText<64>("kvoxd has not answered for %lld s", static_cast<long long>(seconds));
  }
  if (time_.empty()) return "waiting for kvoxd";
  if (!present_) return "kvoxd is away since " + time_ + ": " + error_;
  std::string head = FormatText<64>("kvoxd answers in %.1f ms | ", took_ms_) +
                     Counted(processors_, "processor") + ", " +
                     Counted(rows_.size() - processors_, "buffer") + " | ";
  if (unparsed_ > 0) head += FormatText<64>("%d rows cannot be read | ", unparsed_);
  return head + time_;
}

}  // namespace kvox::client
