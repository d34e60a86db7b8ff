#include "client/monitor/top_model.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "client/output/json.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr auto kSlow = std::chrono::seconds(2);

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

std::vector<Row> RowsOf(const Sample& sample, const PeriodHistory& history) {
  std::vector<Row> rows;
  for (const Processor& processor : sample.processors) {
    rows.push_back(RowOf(processor));
    const auto found = sample.measurements.find(processor.id);
    if (found == sample.measurements.end()) continue;
    rows.back().metrics = MetricsOf(found->second, history.JitterMs(processor.id));
  }
  for (const Buffer& buffer : sample.buffers) rows.push_back(RowOf(buffer));
  return rows;
}

/// In millionths: the daemon's floats have no more significant digits.
Json Rounded(const std::optional<double>& number) {
  return number ? Json(std::round(*number * 1e6) / 1e6) : Json();
}

std::string Counted(size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
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
    if (periods_ms.size() > kPolls) periods_ms.pop_front();
  }
}

std::optional<double> PeriodHistory::JitterMs(const std::string& processor) const {
  const auto found = periods_ms_.find(processor);
  if (found == periods_ms_.end() || found->second.size() < 2) return std::nullopt;
  const auto [least, most] = std::minmax_element(found->second.begin(), found->second.end());
  return *most - *least;
}

Metrics MetricsOf(const Measurement& measurement, std::optional<double> jitter_ms) {
  Metrics metrics{.blocks = measurement.blocks, .jitter_ms = jitter_ms};
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
  return {{"object", row.object},
          {"name", row.name},
          {"type", OrNull(row.type)},
          {"enabled", row.enabled},
          {"from", row.from},
          {"to", row.to},
          {"average_period_ms", Rounded(metrics.period_ms)},
          {"period_jitter_ms", Rounded(metrics.jitter_ms)},
          {"average_active_ms", Rounded(metrics.active_ms)},
          {"max_active_ms", Rounded(metrics.max_active_ms)},
          {"active_share", Rounded(metrics.active_share)},
          {"blocks", row.metrics ? Json(metrics.blocks) : Json()},
          {"gave_up", row.gave_up}};
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
  history_.Add(*result.sample);
  rows_ = RowsOf(*result.sample, history_);
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
