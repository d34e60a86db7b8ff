// What top shows, a row an object. Pure.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/monitor/sampler.h"
#include "client/output/printer.h"

namespace kvox::client {

/// What a processor's measurements come to. None where nothing was measured.
struct Figures {
  int64_t blocks = 0;
  std::optional<double> period_ms = {};      // average since the last look
  std::optional<double> jitter_ms = {};      // see PeriodHistory
  std::optional<double> active_ms = {};      // average
  std::optional<double> max_active_ms = {};  // longest
  std::optional<double> active_share = {};   // of the period: 0.5 is half of it
};

struct Row {
  const char* object = "";  // "processor", "tap-out", "inject"
  std::string name;
  std::string type = {};
  bool enabled = false;
  std::vector<std::string> from;  // where its audio comes from
  std::vector<std::string> to;    // where it goes
  std::optional<Figures> figures = {};
};

/// The average periods of processors over the last looks. The daemon tells no single periods, so
/// that jitter is how far apart the longest and the shortest of these averages are.
class PeriodHistory {
 public:
  static constexpr size_t kLooks = 10;

  /// Adds the averages of a look. Processors that are not in it are forgotten, and so is one that
  /// pauses.
  void Add(const Sample& sample);

  /// None before a second look.
  std::optional<double> JitterMs(const std::string& processor) const;

 private:
  std::map<std::string, std::deque<double>> periods_ms_;
};

Figures FiguresOf(const Measurement& measurement, std::optional<double> jitter_ms);

/// In the daemon's order: processors, tap-out buffers, inject buffers.
std::vector<Row> RowsOf(const Sample& sample, const PeriodHistory& history);

Fields FieldsOf(const Row& row);

}  // namespace kvox::client
