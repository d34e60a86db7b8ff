// What top shows of a daemon, one row per object.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/monitor/poller.h"
#include "client/output/printer.h"

namespace kvox::client {

/// A processor's measurements, summed up. None where nothing was measured.
struct Metrics {
  int64_t blocks = 0;
  std::optional<double> period_ms = {};      // average since the last poll
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
  bool gave_up = false;
  std::vector<std::string> from;  // where its audio comes from
  std::vector<std::string> to;    // where it goes
  std::optional<Metrics> metrics = {};
};

/// The average periods of processors over the last polls. The daemon reports no single periods, so
/// jitter is the range of these averages.
class PeriodHistory {
 public:
  static constexpr size_t kPolls = 10;

  /// Adds the averages of a poll. Forgets processors that are not in it or have paused.
  void Add(const Sample& sample);

  /// None before the second poll.
  std::optional<double> JitterMs(const std::string& processor) const;

 private:
  std::map<std::string, std::deque<double>> periods_ms_;
};

Metrics MetricsOf(const Measurement& measurement, std::optional<double> jitter_ms);

Json RecordOf(const Row& row);

/// The results of polls, one after the other. The last rows stay when the daemon goes away.
class TopModel {
 public:
  /// `time` is when it came, for people.
  void Update(PollResult result, const std::string& time);

  /// "kvoxd answers in 1.2 ms | 3 processors, 16 buffers | 12:34:56.789"
  std::string Head(std::chrono::steady_clock::duration in_flight) const;

  /// True when the last poll reached a daemon.
  bool present() const { return present_; }
  /// Why it did not.
  const std::string& error() const { return error_; }
  /// In the daemon's order: processors, tap-out buffers, inject buffers.
  const std::vector<Row>& rows() const { return rows_; }
  int unparsed() const { return unparsed_; }

 private:
  PeriodHistory history_;
  std::vector<Row> rows_;
  size_t processors_ = 0;
  int unparsed_ = 0;
  bool present_ = false;
  double took_ms_ = 0;
  std::string time_;  // since when the daemon is away, or else when the rows came
  std::string error_;
};

}  // namespace kvox::client
