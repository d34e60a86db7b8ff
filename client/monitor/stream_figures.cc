#include "client/monitor/stream_figures.h"

#include <algorithm>
#include <utility>

namespace kvox::client {
namespace {

/// What was counted between the two.
flight::Distribution Between(const flight::Distribution& before, const flight::Distribution& now) {
  flight::Distribution result = now;
  for (size_t i = 0; i < result.counts.size(); ++i) {
    result.counts[i] -= std::min(result.counts[i], before.counts[i]);
  }
  result.sum -= std::min(result.sum, before.sum);
  return result;
}

std::optional<double> Scaled(std::optional<uint64_t> ns, double unit_ns) {
  return ns ? std::optional(static_cast<double>(*ns) / unit_ns) : std::nullopt;
}

}  // namespace

FigureHistory::Poll FigureHistory::CountersOf(const flight::FlightView& flight) {
  Poll poll;
  for (const auto& stream : flight.streams) {
    poll[stream.name] = {stream.Lost(), stream.late, stream.arrival_error, stream.processing,
                         stream.writing};
  }
  for (const auto& inject : flight.injects) {
    if (!inject.name.empty()) poll[inject.name] = {.lost = inject.full + inject.gone};
  }
  return poll;
}

std::map<std::string, StreamFigures> FigureHistory::Add(const flight::FlightView& now) {
  if (std::exchange(started_ns_, now.started_ns) != now.started_ns) polls_.clear();
  polls_.push_back(CountersOf(now));
  if (polls_.size() > kPolls) polls_.pop_front();
  std::map<std::string, StreamFigures> figures;
  for (const auto& [name, counters] : polls_.back()) {
    const auto found = polls_.front().find(name);
    const Counters before = found == polls_.front().end() ? Counters() : found->second;
    const bool first = polls_.size() == 1;  // then everything is since the daemon's start
    const auto lately = [&](const flight::Distribution& then, const flight::Distribution& since) {
      return first ? since : Between(then, since);
    };
    const auto processing = lately(before.processing, counters.processing);
    const uint64_t packets = processing.Total();
    StreamFigures& row = figures[name];
    row.lost = counters.lost;
    row.late = counters.late;
    row.fresh = !first && counters.lost > before.lost;
    row.jitter_ms =
        Scaled(lately(before.arrival_error, counters.arrival_error).Percentile(0.99), 1e6);
    if (packets == 0) continue;
    const auto writing = lately(before.writing, counters.writing);
    row.busy_us = Scaled((processing.sum + writing.sum) / packets, 1e3);
  }
  return figures;
}

}  // namespace kvox::client
